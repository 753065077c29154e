// A module lock's holder as it stands in messages (agent_messages.h).
#pragma once

#include "agent_messages.h"
#include "chassis_module_lock.h"
#include "text_field.h"

inline agent_lock_t message_of(const chassis_module_lock_holder &holder)
{
    agent_lock_t lock = {be32::of(holder.node_id), be32::of(holder.slot),   be32::of(holder.pid),
                         be32::of(holder.owner),   be32::of(holder.reason), {}};
    store_text(lock.since, holder.since.c_str());
    return lock;
}

inline agent_held_lock_t held_message_of(const chassis_module_lock_holder &holder)
{
    agent_held_lock_t held{.lock = message_of(holder), .user = {}, .host = {}, .until = {}};
    store_text(held.user, holder.user.c_str());
    store_text(held.host, holder.host.c_str());
    store_text(held.until, holder.until.c_str());
    return held;
}

inline chassis_module_lock_holder holder_of(const agent_lock_t &lock)
{
    return {static_cast<std::uint16_t>(lock.node_id.load()),
            lock.slot.load(),
            lock.pid.load(),
            lock.owner.load(),
            lock.reason.load(),
            field_text(lock.since).text};
}
