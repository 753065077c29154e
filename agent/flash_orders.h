// Orders for this card's flashes: who wants what to be written. The records are kept by the flash service; here
// they are made, renewed and taken back on request of others.
#pragma once

#include "answer.h"

// Has those that program know the card's family.
void record_own_family();

answer order_answer(const agent_order_req_t &request);        // AGENT_OPC_ORDER_FLASH
answer renewal_answer(const agent_order_id_t &request);       // AGENT_OPC_RENEW_ORDER
answer order_end_answer(const agent_order_end_t &request);    // AGENT_OPC_END_ORDER
answer cancellation_answer(const agent_flash_req_t &request); // AGENT_OPC_CANCEL_ORDER
answer order_record_answer(const agent_flash_req_t &request); // AGENT_OPC_GET_ORDER
