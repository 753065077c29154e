// What a card says of itself and its flashes.
#pragma once

#include "answer.h"

answer card_answer();                            // AGENT_OPC_GET_CARD
std::uint32_t flash_state_of(unsigned instance); // bits of agent_flash_state
