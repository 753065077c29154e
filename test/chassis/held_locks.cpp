#include "held_locks.h"

#include <cstring>
#include <stdexcept>

#include "chassis_module_lock.h"
#include "modlock.h"

held_locks locks_held()
{
    // The lock file is opened anew: that of an earlier test of this process belongs to another chassis.
    if (modlock_init() != 0)
        throw std::runtime_error("modlock_init");
    int error = 0;
    held_locks held;
    for (const chassis_module_lock_holder &holder : chassis_module_lock_holders(error))
        held[holder.node_id] = holder.slot;
    if (error != 0)
        throw std::runtime_error(std::string("module locks: ") + std::strerror(error));
    return held;
}
