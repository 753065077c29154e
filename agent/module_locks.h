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

answer locks_answer(); // AGENT_OPC_GET_LOCKS
