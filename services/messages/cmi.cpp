// Requests and their answers (platform/cmi.h).
//
// A request's payload is a header of MTS_REQUEST_HEADER_BYTES and the body:
//
//   0    32 bytes  tag_1, cut at 31 characters, NUL-padded
//   32   32 bytes  tag_2, likewise
//   64   48 bytes  zero
//   112            the body
//
// The answer is found by the request's id. The frame says how long the sender waits: a request that is still in its
// receiver's queue then is not served (overdue_requests.h).
#include "cmi.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <vector>

#include "bios_messages.h"
#include "c_boundary.h"
#include "chassis_dir.h"
#include "endpoints.h"
#include "known_answers.h"
#include "message_texts.h"
#include "module_waits.h"
#include "monotonic_clock.h"
#include "mts_endpoint.h"
#include "mts_request_id.h"
#include "silent_peers.h"

namespace
{

constexpr std::size_t TAG_BYTES = 32;
constexpr std::int64_t PEER_CHECK_US = MICROSECONDS;
constexpr const char *WAIT_LIMIT_FILE = "transport/wait_limit_s";

struct request_header {
    char tag_1[TAG_BYTES];
    char tag_2[TAG_BYTES];
    std::uint8_t zero[48];
};
static_assert(sizeof(request_header) == MTS_REQUEST_HEADER_BYTES);

void store_tag(char (&field)[TAG_BYTES], const char *tag)
{
    if (tag != nullptr)
        std::memcpy(field, tag, ::strnlen(tag, TAG_BYTES - 1));
}

// The body of a request that has none of its own: the beginning of the tag, zeros behind its end.
std::vector<char> body_from_tag(const char *tag, std::uint32_t length)
{
    std::vector<char> body(length);
    if (tag != nullptr)
        std::copy_n(tag, ::strnlen(tag, length), body.begin());
    return body;
}

// A request under way.
struct pending {
    mts_endpoint &endpoint;
    mts_address_t to;
    datagram_peer receiver;
    std::uint64_t id;
    std::int64_t start;
    std::uint32_t wait_limit_s;
};

bool answers(const mts_message &message, const pending &request)
{
    const mts_frame_header &header = message.header;
    return mts_is_answer(header) && header.request_id == request.id;
}

std::int64_t deadline_of(const pending &request, std::uint32_t limit_s)
{
    return request.start + std::int64_t{std::min(limit_s, request.wait_limit_s)} * MICROSECONDS;
}

// The chassis's limit binds cards only: a bound tool, which begins to wait before the card that it asks does, would
// give up just before that card's own failure arrives.
std::uint32_t allowed_wait_s(std::uint32_t wait_limit_s)
{
    return chassis_own_slot() == 0 ? wait_limit_s : chassis_read_value(WAIT_LIMIT_FILE, wait_limit_s);
}

std::uint32_t milliseconds_of(std::uint32_t seconds)
{
    constexpr std::uint32_t PER_SECOND = 1000;
    return std::min(seconds, std::numeric_limits<std::uint32_t>::max() / PER_SECOND) * PER_SECOND;
}

// Once a second it is looked whether the receiver still lives and whether the chassis's wait limit has changed.
// When the receiver is gone, what it sent before is still read; then there is nothing left to wait for.
mts_held_message wait_for_answer(const pending &request)
{
    std::int64_t now = request.start;
    std::int64_t deadline = deadline_of(request, request.wait_limit_s);
    std::int64_t next_check = now + PEER_CHECK_US;
    bool receiver_gone = false;
    for (;;) {
        const std::int64_t until = receiver_gone ? now : std::min(deadline, next_check);
        auto message = mts_endpoint_receive(request.endpoint, mts_wanted::everything, now, until);
        if (message && answers(*message, request))
            return message;
        const int failure = message ? 0 : errno;
        if (message && (message->header.kind == mts_frame_kind::request ||
                        message->header.kind == mts_frame_kind::unsolicited))
            mts_endpoint_keep(request.endpoint, std::move(message));
        if (failure != 0 && failure != MTS_ERRNO_TIMED_OUT && failure != MTS_ERRNO_INTERRUPTED)
            return nullptr;

        now = monotonic_us();
        if (receiver_gone && failure == MTS_ERRNO_TIMED_OUT) {
            errno = ECONNRESET;
            return nullptr;
        }
        if (now >= next_check) {
            next_check = now + PEER_CHECK_US;
            receiver_gone = !card_datagram_driver->is_there(request.endpoint.port, request.to, request.receiver);
            deadline = deadline_of(request, allowed_wait_s(request.wait_limit_s));
        }
        if (now >= deadline) {
            errno = receiver_gone ? ECONNRESET : MTS_ERRNO_TIMED_OUT;
            return nullptr;
        }
    }
}

// The flash that a request to program names.
std::uint32_t flash_instance_in(const mts_payload &payload)
{
    constexpr std::size_t TYPE_AT = offsetof(bios_programming_req_t, type);
    return payload.body_bytes > TYPE_AT ? static_cast<const std::uint8_t *>(payload.body)[TYPE_AT] : 0;
}

std::int32_t request_and_wait(mts_endpoint &endpoint, mts_address_t to, std::uint32_t opcode,
                              const mts_payload &payload, std::uint32_t wait_limit, void **response_out,
                              std::uint32_t *length)
{
    mts_frame_header header{};
    header.kind = mts_frame_kind::request;
    header.opcode = opcode;
    header.request_id = mts_next_request_id();
    const auto module_limit_s = chassis_own_slot() != 0 ? module_wait_limit_s(opcode) : std::nullopt;
    if (module_limit_s && is_silent_peer(endpoint, to)) {
        errno = MTS_ERRNO_TIMED_OUT;
        return -1;
    }
    wait_limit = std::min(wait_limit, module_limit_s.value_or(wait_limit));
    header.wait_ms = milliseconds_of(std::min(wait_limit, allowed_wait_s(wait_limit)));
    pending request{endpoint, to, {}, header.request_id, monotonic_us(), wait_limit};
    if (mts_endpoint_send(endpoint, to, header, payload, &request.receiver) != 0)
        return -1;

    mts_held_message answer = wait_for_answer(request);
    if (!answer) {
        if (module_limit_s && errno == MTS_ERRNO_TIMED_OUT)
            silent_peer_note(to, request.receiver);
        return -1;
    }
    if (answer->header.kind == mts_frame_kind::reject) {
        errno = EOPNOTSUPP;
        return -1;
    }
    if (endpoint.address().sap == BIOS_DAEMON_SAP) // it writes them into its log
        make_texts_printable(*answer);
    *length = answer->header.payload_bytes;
    const auto status = static_cast<std::int32_t>(answer->header.status);
    if (module_limit_s && status == 0 && opcode == MTS_OPC_BIOS_PROGRAMMING_START)
        endpoint.awaited.emplace(to, request.receiver, flash_instance_in(payload));
    known_answer_add(answer->payload, *length, *length + MTS_ZEROS_BEHIND_PAYLOAD);
    *response_out = answer.release()->payload;
    return status;
}

} // namespace

int32_t cmi_response(const void *payload, uint32_t length, int32_t handle, mts_message_t *message, uint32_t status)
{
    mts_endpoint *endpoint = mts_endpoint_of(handle);
    if (endpoint == nullptr)
        return -1;
    if (message == nullptr || message->header.kind != mts_frame_kind::request) {
        errno = EINVAL;
        return -1;
    }
    return c_boundary([&] {
        mts_frame_header header{};
        header.kind = mts_frame_kind::response;
        header.opcode = message->header.opcode;
        header.status = status;
        header.request_id = message->header.request_id;
        const mts_payload whole = {payload, payload != nullptr ? length : 0, nullptr, 0};
        return mts_endpoint_send(*endpoint, {message->header.source_node, message->header.source_sap}, header,
                                 whole, nullptr);
    });
}

int32_t cmi_remote_req_resp(uint32_t opcode, uint32_t request_type, const void *request, void **response_out,
                            uint32_t *length, const char *tag_1, const char *tag_2, uint32_t sap, uint32_t node,
                            int32_t handle, uint32_t wait_limit)
{
    if (request_type != REQUEST_TYPE || response_out == nullptr || length == nullptr ||
        (request == nullptr && *length != 0)) {
        errno = EINVAL;
        return -1;
    }
    const bool own_body = request != length;
    const std::uint32_t body_bytes = *length;
    *response_out = nullptr;
    *length = 0;
    mts_endpoint *endpoint = mts_endpoint_of(handle);
    if (endpoint == nullptr)
        return -1;
    if (body_bytes > MTS_MAX_PAYLOAD_BYTES) {
        errno = EMSGSIZE;
        return -1;
    }
    return c_boundary([&] {
        request_header header{};
        store_tag(header.tag_1, tag_1);
        store_tag(header.tag_2, tag_2);
        const std::vector<char> tag_body = own_body ? std::vector<char>() : body_from_tag(tag_1, body_bytes);
        const void *body = own_body ? request : tag_body.data();
        const mts_payload payload = {&header, sizeof header, body, body_bytes};
        return request_and_wait(*endpoint, {node, sap}, opcode, payload, wait_limit, response_out, length);
    });
}
