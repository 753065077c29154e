// MTS_OPC_BIOS_PROGRAMMING_START: accepts or refuses a programming request and forks the child that does it.
#pragma once

#include <cstdint>

#include "daemon_context.h"

// Answers the request before any work is done. 0, or BIOS_ERR_CARD_ID when the own card id is 0: the daemon ends.
std::uint32_t handle_programming_start(daemon_context &context, mts_message_t *message);
