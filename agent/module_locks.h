// The lock service of this process's card, with what it needs around it: the card's lock file, its inventory and
// its endpoint.
#pragma once

#include <cstdint>

#include "answer.h"
#include "lock_service.h"

// The service of the endpoint, from now on, in place of one from before.
void start_module_locks(std::int32_t handle);

// REQUIRES start_module_locks, else there are none.
lock_service *module_locks();

// Whether a module's lock is asked for at this agent: it is of this card, or its card has none or no agent.
bool is_module_lock_served_here(std::uint16_t node_id);

answer locks_answer(); // AGENT_OPC_GET_LOCKS
