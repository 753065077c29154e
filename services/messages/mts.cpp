// The message transport's calls (platform/mts.h).
#include "mts.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "c_boundary.h"
#include "endpoints.h"
#include "kept_notices.h"
#include "monotonic_clock.h"
#include "mts_endpoint.h"
#include "mts_tools.h"
#include "overdue_requests.h"

namespace
{

constexpr std::int64_t BROKEN_ENDPOINT_PAUSE_US = MICROSECONDS;

mts_frame_header header_of(mts_frame_kind kind, std::uint32_t opcode)
{
    mts_frame_header header{};
    header.kind = kind;
    header.opcode = opcode;
    return header;
}

// The daemon's loop receives again at once after any failure: without a pause an endpoint that is broken for good
// would take all of a processor. errno stays that of the failure.
void pause_after_failure(std::int64_t deadline)
{
    const int failure = errno;
    const std::int64_t pause_us = std::min(deadline - monotonic_us(), BROKEN_ENDPOINT_PAUSE_US);
    if (pause_us > 0 && failure != MTS_ERRNO_TIMED_OUT && failure != MTS_ERRNO_INTERRUPTED) {
        timespec pause{};
        pause.tv_sec = static_cast<decltype(pause.tv_sec)>(pause_us / MICROSECONDS);
        pause.tv_nsec = static_cast<decltype(pause.tv_nsec)>(pause_us % MICROSECONDS * 1000);
        (void)::nanosleep(&pause, nullptr); // a signal ends it
    }
    errno = failure;
}

// As mts_endpoint_receive, after what was kept.
mts_held_message next_of_any_kind(mts_endpoint &endpoint, mts_wanted wanted, std::int64_t now,
                                  std::int64_t deadline)
{
    mts_held_message message = mts_endpoint_take_kept(endpoint);
    return message ? std::move(message) : mts_endpoint_receive(endpoint, wanted, now, deadline);
}

// While the end of a programming is awaited: it may be one that the transport makes.
mts_held_message next_while_awaiting(mts_endpoint &endpoint, std::int64_t deadline)
{
    awaited_completion &awaited = *endpoint.awaited;
    for (;;) {
        awaited.look(endpoint);
        const std::int64_t now = monotonic_us();
        const std::int64_t until = awaited.is_given_up() ? now : std::min(deadline, awaited.next_look_us());
        mts_held_message message = next_of_any_kind(endpoint, mts_wanted::everything, now, until);
        const int failure = message ? 0 : errno;
        if (message && (awaited.takes(*message) || mts_is_answer(message->header)))
            continue;
        if (message && awaited.came_later(*message) && !awaited.is_ended_by(*message)) {
            mts_endpoint_keep(endpoint, std::move(message));
            message = awaited.made();
        } else if (message) {
            awaited.notice(*message);
        } else if (awaited.is_given_up() && failure == MTS_ERRNO_TIMED_OUT) {
            message = awaited.made();
        }
        if (message && awaited.is_ended_by(*message))
            endpoint.awaited.reset();
        if (message)
            return message;
        if (failure != MTS_ERRNO_TIMED_OUT || monotonic_us() >= deadline) {
            errno = failure;
            return nullptr;
        }
    }
}

mts_held_message next_message(mts_endpoint &endpoint, std::int64_t now, std::int64_t deadline)
{
    for (;;) {
        mts_held_message message = endpoint.awaited
                                       ? next_while_awaiting(endpoint, deadline)
                                       : next_of_any_kind(endpoint, mts_wanted::messages, now, deadline);
        if (!message || !mts_is_overdue(endpoint, *message))
            return message;
        now = monotonic_us();
    }
}

} // namespace

int32_t mts_bind(uint32_t kind, int32_t sap, const uint32_t options[6], const char *)
{
    if (kind != BIND_KIND || sap < ANY_SAP || options == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return c_boundary([&] { return mts_endpoint_bind(sap); });
}

int32_t mts_recv(int32_t handle, mts_message_t **message_out, const uint32_t options[10])
{
    if (options == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return mts_recv_within(handle, message_out, std::int64_t{options[MTS_RECV_OPTION_WAIT_S]} * MICROSECONDS);
}

std::int32_t mts_recv_within(std::int32_t handle, mts_message_t **message_out, std::int64_t wait_us)
{
    if (message_out == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const std::int64_t now = monotonic_us();
    const std::int64_t deadline = now + wait_us;
    const std::int32_t result = c_boundary([&] {
        mts_endpoint *endpoint = mts_endpoint_of(handle);
        mts_held_message message = endpoint != nullptr ? next_message(*endpoint, now, deadline) : nullptr;
        if (!message)
            return -1;
        *message_out = message.release();
        return 0;
    });
    if (result != 0)
        pause_after_failure(deadline);
    return result;
}

uint32_t mts_opc_get(const mts_message_t *message)
{
    return message != nullptr ? message->header.opcode : 0;
}

void *mts_payload_get(mts_message_t *message)
{
    return message->payload;
}

int32_t mts_saddr_get(const mts_message_t *message, mts_address_t *address_out)
{
    if (message == nullptr || address_out == nullptr)
        return -1;
    *address_out = {message->header.source_node, message->header.source_sap};
    return 0;
}

int32_t mts_send(int32_t handle, uint32_t node, uint32_t sap, uint32_t opcode, const void *payload, uint32_t length,
                 uint32_t, uint32_t, uint32_t)
{
    mts_endpoint *endpoint = mts_endpoint_of(handle);
    if (endpoint == nullptr)
        return -1;
    if (payload == nullptr && length != 0) {
        errno = EINVAL;
        return -1;
    }
    return c_boundary([&] {
        const mts_frame_header header = header_of(mts_frame_kind::unsolicited, opcode);
        // First, so that whoever gets the message finds it there. One that nobody can get is none.
        if (kept_notice_is_one(node, opcode) && (node == MTS_NODE_LISTENERS || mts_is_bound(node, sap)))
            kept_notice_keep(endpoint->address(), opcode, payload, length);
        return mts_endpoint_send(*endpoint, {node, sap}, header, {payload, length, nullptr, 0}, nullptr);
    });
}

int32_t mts_respond_reject(int32_t handle, uint32_t, uint32_t, mts_message_t *message, uint32_t, uint32_t)
{
    mts_endpoint *endpoint = mts_endpoint_of(handle);
    if (endpoint == nullptr)
        return -1;
    if (message == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (message->header.kind != mts_frame_kind::request)
        return 0; // nobody waits for an answer
    return c_boundary([&] { return mts_endpoint_reject(*endpoint, message->header); });
}

int32_t mts_drop(int32_t, mts_message_t *message)
{
    if (message == nullptr) {
        errno = EINVAL;
        return -1;
    }
    free_message()(message);
    return 0;
}
