// What a card says of itself and its flashes.
#pragma once

#include "answer.h"

answer card_answer();                                     // AGENT_OPC_GET_CARD
answer version_answer(const agent_flash_req_t &request); // AGENT_OPC_GET_VERSION
