// What has happened to the flashes of a card.
#pragma once

#include "answer.h"

// Has the event logs of this card's flashes keep count of what finds no room in them.
void prepare_event_logs();

answer events_answer(const agent_events_req_t &request);    // AGENT_OPC_GET_EVENTS
answer totals_answer(const agent_flash_req_t &request);     // AGENT_OPC_GET_TOTALS
answer log_faults_answer(const agent_flash_req_t &request); // AGENT_OPC_GET_LOG_FAULTS
