#include "overdue_requests.h"

#include "monotonic_clock.h"

namespace
{

constexpr std::int64_t MICROSECONDS_PER_MS = 1000;
constexpr std::int64_t FRESH_US = 100'000; // until then nobody looks whether the sender is still there

} // namespace

bool mts_is_overdue(mts_endpoint &endpoint, const mts_message &message)
{
    const mts_frame_header &header = message.header;
    if (header.kind != mts_frame_kind::request)
        return false;
    const std::int64_t age_us = monotonic_us() - message.came_us;
    if (age_us < FRESH_US && (header.wait_ms == 0 || age_us < header.wait_ms * MICROSECONDS_PER_MS))
        return false;
    if (!card_datagram_driver->is_bound({header.source_node, header.source_sap}, nullptr))
        return true;
    if (header.wait_ms == 0 || age_us < header.wait_ms * MICROSECONDS_PER_MS)
        return false;
    (void)mts_endpoint_reject(endpoint, header); // a sender that does not read waits in vain
    return true;
}
