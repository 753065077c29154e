// What has happened to the flashes of a card.
#pragma once

#include "answer.h"

answer events_answer(const agent_events_req_t &request); // AGENT_OPC_GET_EVENTS
answer totals_answer(const agent_flash_req_t &request);  // AGENT_OPC_GET_TOTALS
