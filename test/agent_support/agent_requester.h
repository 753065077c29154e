// A request to an agent of the chassis that this process is attached to, through an endpoint for this once, because
// the next test has another chassis.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <unistd.h>
#include <vector>

#include "agent_messages.h"
#include "cmi.h"
#include "endpoints.h"
#include "mts_tools.h"

struct agent_reply {
    std::uint32_t status = 0;
    std::vector<std::uint8_t> payload = {};
};

// None when there is no answer. Sent again when none has come in the time given: messages may be lost, or cut.
inline std::optional<agent_reply> agent_reply_to(std::uint32_t node, std::uint32_t opcode,
                                                 std::span<const std::uint8_t> body = {}, std::uint32_t wait_s = 1)
{
    constexpr unsigned ATTEMPTS = 20;
    const std::uint8_t nothing = 0;
    const std::int32_t handle = mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, "agent requester");
    std::optional<agent_reply> reply;
    for (unsigned k = 0; !reply && k < ATTEMPTS; ++k) {
        void *answer = nullptr;
        auto length = static_cast<std::uint32_t>(body.size());
        const std::int32_t result =
            cmi_remote_req_resp(opcode, REQUEST_TYPE, body.empty() ? &nothing : body.data(), &answer, &length,
                                nullptr, nullptr, AGENT_SAP, node, handle, wait_s);
        const int error = errno;
        const std::unique_ptr<void, decltype(&std::free)> owned(answer, std::free);
        const auto *bytes = static_cast<const std::uint8_t *>(answer);
        if (static_cast<std::uint32_t>(result) == AGENT_ERR_BUSY)
            (void)::usleep(50'000);
        else if (result != -1)
            reply = {static_cast<std::uint32_t>(result),
                     bytes != nullptr ? std::vector(bytes, bytes + length) : std::vector<std::uint8_t>()};
        else if (error != MTS_ERRNO_TIMED_OUT)
            break; // it has just ended
    }
    mts_unbind(handle);
    return reply;
}
