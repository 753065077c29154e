// Which requests the daemon gets to see. A received message is offered to the debug service before it is served
// (sdwrap_process_msg): there a request that the card must not serve now is answered with a status and consumed.
#pragma once

#include <cstdint>
#include <optional>

#include "mts.h"

// What is said to a request instead of serving it.
struct refusal {
    std::uint32_t status; // of the answer
    const void *payload;  // of the answer; static
    std::uint32_t payload_bytes;
};

// Looks at a request; none: the daemon is to serve it.
using admission_check = std::optional<refusal> (*)(std::int32_t handle, mts_message_t *message);
