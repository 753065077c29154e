#include "held_locks.h"

#include "served_locks.h"

held_locks locks_held()
{
    held_locks held;
    for (const chassis_module_lock_holder &holder : served_locks())
        held[holder.node_id] = holder.slot;
    return held;
}
