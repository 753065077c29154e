// The body of a request that has been received.
#pragma once

#include <cstdint>
#include <cstring>

#include "mts.h"

// A copy of the body behind the platform's header. It may be longer than what was sent: the payload is zero beyond
// its end.
//   payload  of the message, from mts_payload_get
template<class record>
record request_body(const void *payload)
{
    static_assert(MTS_REQUEST_HEADER_BYTES + sizeof(record) <= MTS_READABLE_PAYLOAD_BYTES);
    record body;
    std::memcpy(&body, static_cast<const std::uint8_t *>(payload) + MTS_REQUEST_HEADER_BYTES, sizeof body);
    return body;
}
