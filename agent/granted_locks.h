// The module locks that an agent has granted, kept in a file of the card, so that an agent that is started again
// goes on with them: slots/SLOT/locks/granted, a line for each, "AGENTNODE ID " and module_lock_text. What the card
// did before it booted does not count: whoever boots the card removes the file.
#pragma once

#include <cstdint>
#include <map>

#include "chassis_module_lock.h"

struct granted_lock {
    chassis_module_lock_holder holder;
    std::uint32_t agent_node = 0; // of the holder's agent
    std::int64_t renewed_us = 0;  // when that one last said that it is held; not kept
    std::uint64_t id = 0;         // of what that one said last; that of the grant is kept
};

using granted_locks = std::map<std::uint16_t, granted_lock>; // by node id

// Those of the file; lines that are none are passed over. Empty when there is no file.
granted_locks load_granted_locks();

// false with errno.
bool store_granted_locks(const granted_locks &granted);
