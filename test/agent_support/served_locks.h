// The module locks that the agents of a test's chassis serve.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <vector>

#include "agent_answers.h"
#include "agent_messages.h"
#include "cmi.h"
#include "endpoints.h"
#include "mts_tools.h"

// In order of the node ids. Asks the agents of the chassis that this process is attached to, through an endpoint
// for this once, because the next test has another chassis.
inline std::vector<chassis_module_lock_holder> served_locks()
{
    constexpr std::uint32_t WAIT_S = 1;
    constexpr unsigned ATTEMPTS = 20; // messages may be lost, or cut
    const std::int32_t handle = mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, "served locks");
    std::vector<chassis_module_lock_holder> locks;
    for (const std::uint32_t node : mts_nodes_with(AGENT_SAP)) {
        std::optional<std::vector<chassis_module_lock_holder>> served;
        for (unsigned k = 0; !served && k < ATTEMPTS; ++k) {
            void *answer = nullptr;
            std::uint32_t length = 0;
            const std::int32_t result = cmi_remote_req_resp(AGENT_OPC_GET_LOCKS, REQUEST_TYPE, "", &answer, &length,
                                                            nullptr, nullptr, AGENT_SAP, node, handle, WAIT_S);
            const std::unique_ptr<void, decltype(&std::free)> owned(answer, std::free);
            if (result == 0)
                served = decode_locks({static_cast<const std::uint8_t *>(answer), length});
            else if (errno == ECONNREFUSED)
                break; // it has just ended
        }
        if (served)
            locks.insert(locks.end(), served->begin(), served->end());
    }
    mts_unbind(handle);
    std::ranges::sort(locks, {}, &chassis_module_lock_holder::node_id);
    return locks;
}
