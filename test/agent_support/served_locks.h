// The module locks that the agents of a test's chassis serve.
#pragma once

#include <algorithm>
#include <vector>

#include "agent_answers.h"
#include "agent_requester.h"

// In order of the node ids.
inline std::vector<chassis_module_lock_holder> served_locks()
{
    constexpr unsigned ATTEMPTS = 20; // an answer may have been cut on its way
    std::vector<chassis_module_lock_holder> locks;
    for (const std::uint32_t node : mts_nodes_with(AGENT_SAP)) {
        std::optional<std::vector<chassis_module_lock_holder>> served;
        for (unsigned k = 0; !served && k < ATTEMPTS; ++k) {
            const auto reply = agent_reply_to(node, AGENT_OPC_GET_LOCKS);
            if (!reply)
                break;
            served = decode_locks(reply->payload);
        }
        if (served)
            locks.insert(locks.end(), served->begin(), served->end());
    }
    std::ranges::sort(locks, {}, &chassis_module_lock_holder::node_id);
    return locks;
}
