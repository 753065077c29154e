// Requests and their answers (platform/cmi.h).
//
// A request's payload is a header of MTS_REQUEST_HEADER_BYTES and the body:
//
//   0    32 bytes  tag_1, cut at 31 characters, NUL-padded
//   32   32 bytes  tag_2, likewise
//   64   48 bytes  zero
//   112            the body
//
// The answer is found by the request's id: the ids of a process begin at a random number, so that a late answer to
// one request is never taken for the answer to another, not even by a process that has taken over the address.
#include "cmi.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/random.h>
#include <vector>

#include "c_boundary.h"
#include "chassis_dir.h"
#include "endpoints.h"
#include "known_answers.h"
#include "monotonic_clock.h"
#include "mts_endpoint.h"
#include "this_process.h"

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

std::uint64_t next_request_id()
{
    static std::uint64_t last = 0;
    static pid_t process = 0;
    if (process != this_process()) { // a forked child must not go on with its parent's numbers
        process = this_process();
        if (::getrandom(&last, sizeof last, 0) != sizeof last)
            last = static_cast<std::uint64_t>(monotonic_us()) << 20 | static_cast<std::uint64_t>(process);
    }
    return ++last;
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
    return (header.kind == mts_frame_kind::response || header.kind == mts_frame_kind::reject) &&
           header.request_id == request.id;
}

std::int64_t deadline_of(const pending &request, std::uint32_t limit_s)
{
    return request.start + std::int64_t{std::min(limit_s, request.wait_limit_s)} * MICROSECONDS;
}

// The chassis's limit binds cards only: a bound tool, which begins to wait before the card that it asks does, would
// give up just before that card's own failure arrives.
std::uint32_t allowed_wait_s(const pending &request)
{
    if (chassis_own_slot() == 0)
        return request.wait_limit_s;
    return chassis_read_value(WAIT_LIMIT_FILE, request.wait_limit_s);
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
            deadline = deadline_of(request, allowed_wait_s(request));
        }
        if (now >= deadline) {
            errno = receiver_gone ? ECONNRESET : MTS_ERRNO_TIMED_OUT;
            return nullptr;
        }
    }
}

std::int32_t request_and_wait(mts_endpoint &endpoint, mts_address_t to, std::uint32_t opcode,
                              const mts_payload &payload, std::uint32_t wait_limit, void **response_out,
                              std::uint32_t *length)
{
    mts_frame_header header{};
    header.kind = mts_frame_kind::request;
    header.opcode = opcode;
    header.request_id = next_request_id();
    pending request{endpoint, to, {}, header.request_id, monotonic_us(), wait_limit};
    if (mts_endpoint_send(endpoint, to, header, payload, &request.receiver) != 0)
        return -1;

    mts_held_message answer = wait_for_answer(request);
    if (!answer)
        return -1;
    if (answer->header.kind == mts_frame_kind::reject) {
        errno = EOPNOTSUPP;
        return -1;
    }
    *length = answer->header.payload_bytes;
    const auto status = static_cast<std::int32_t>(answer->header.status);
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
