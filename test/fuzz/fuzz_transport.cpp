// The message transport and the debug wrapper of the fuzzing platform.
#include <cerrno>
#include <cstring>

#include "cmi.h"
#include "endpoints.h"
#include "fuzz_platform.h"
#include "known_answers.h"
#include "sdwrap.h"

namespace
{

constexpr std::int32_t HANDLE = 7;
constexpr std::int32_t CHILD_HANDLE = 8;
constexpr std::uint32_t LONGEST_WAIT_S = 5;
constexpr std::uint32_t REQUEST_WAIT_S = 1800;
constexpr std::uint32_t PROGRAMMING_DONE_OPCODE = 4793;
constexpr std::size_t LOG_LINE_BYTES = 512;

std::int32_t own_handle()
{
    return platform().in_child ? CHILD_HANDLE : HANDLE;
}

// The answer that the input has for a request: its length in two bytes, and the bytes that are there.
void *take_answer(std::uint32_t *length)
{
    const std::uint16_t wanted = platform().input.word();
    const auto answer = platform().input.bytes(wanted);
    const std::size_t block_bytes = std::max<std::size_t>(answer.size(), MTS_READABLE_PAYLOAD_BYTES);
    auto *block = static_cast<std::uint8_t *>(real_zeroed_block(block_bytes));
    std::copy(answer.begin(), answer.end(), block);
    *length = static_cast<std::uint32_t>(answer.size());
    known_answer_add(block, *length, static_cast<std::uint32_t>(block_bytes));
    return block;
}

} // namespace

std::int32_t mts_bind(std::uint32_t, std::int32_t, const std::uint32_t options[6], const char *)
{
    expect_accessible(options, MTS_BIND_OPTION_WORDS * sizeof *options, "mts_bind: options can be read");
    return platform().fails(EADDRINUSE) ? -1 : own_handle();
}

std::int32_t mts_recv(std::int32_t handle, mts_message_t **message_out, const std::uint32_t options[10])
{
    require(handle == own_handle(), "mts_recv: own endpoint");
    const std::uint32_t wait_s = options[MTS_RECV_OPTION_WAIT_S];
    require(wait_s >= 1 && wait_s <= LONGEST_WAIT_S && options[MTS_RECV_OPTION_MODE] == 1, "mts_recv: options");
    if (platform().fails(MTS_ERRNO_TIMED_OUT) || platform().fails(EINVAL))
        return -1;
    if (platform().receive(message_out))
        return 0;
    if (!platform().in_child)
        platform().leave();
    // A child waits for the other module's end, for half an hour if need be.
    mts_message end;
    end.opcode = PROGRAMMING_DONE_OPCODE;
    platform().lend_message(std::move(end));
    *message_out = platform().current();
    return 0;
}

std::uint32_t mts_opc_get(const mts_message_t *message)
{
    platform().expect_current(message, "mts_opc_get: a received message");
    return message->opcode;
}

void *mts_payload_get(mts_message_t *message)
{
    platform().expect_current(message, "mts_payload_get: a received message");
    return message->payload.data();
}

std::int32_t mts_saddr_get(const mts_message_t *message, mts_address_t *address_out)
{
    platform().expect_current(message, "mts_saddr_get: a received message");
    *address_out = {0x202, 94};
    return 0;
}

std::int32_t mts_send(std::int32_t handle, std::uint32_t, std::uint32_t, std::uint32_t, const void *payload,
                      std::uint32_t length, std::uint32_t, std::uint32_t, std::uint32_t)
{
    require(handle == own_handle(), "mts_send: own endpoint");
    expect_accessible(payload, length, "mts_send: the payload can be read");
    return platform().fails(ECONNREFUSED) ? -1 : 0;
}

std::int32_t mts_respond_reject(std::int32_t handle, std::uint32_t, std::uint32_t, mts_message_t *message,
                                std::uint32_t, std::uint32_t)
{
    require(handle == HANDLE && !platform().in_child, "mts_respond_reject: own endpoint");
    platform().expect_current(message, "mts_respond_reject: a received message");
    require(message->answers + message->rejections == 0, "a message is rejected once, and not answered too");
    ++message->rejections;
    return platform().fails(ECONNREFUSED) ? -1 : 0;
}

std::int32_t mts_drop(std::int32_t handle, mts_message_t *message)
{
    require(handle == own_handle(), "mts_drop: own endpoint");
    platform().drop(message);
    return 0;
}

std::int32_t cmi_response(const void *payload, std::uint32_t length, std::int32_t handle, mts_message_t *message,
                          std::uint32_t)
{
    require(handle == HANDLE && !platform().in_child, "cmi_response: own endpoint");
    platform().expect_current(message, "cmi_response: a received message");
    require(message->answers + message->rejections == 0, "a message is answered once, and not rejected too");
    ++message->answers;
    require(length <= MTS_MAX_PAYLOAD_BYTES, "an answer can be sent");
    if (payload != nullptr)
        expect_accessible(payload, length, "cmi_response: the payload can be read");
    if (platform().response_sent)
        platform().response_sent(payload, length);
    return platform().fails(ECONNREFUSED) ? -1 : 0;
}

std::int32_t cmi_remote_req_resp(std::uint32_t, std::uint32_t request_type, const void *request,
                                 void **response_out, std::uint32_t *length, const char *tag_1, const char *tag_2,
                                 std::uint32_t, std::uint32_t node, std::int32_t handle, std::uint32_t wait_limit)
{
    require(handle == own_handle() && request_type == REQUEST_TYPE && wait_limit == REQUEST_WAIT_S,
            "cmi_remote_req_resp: fixed arguments");
    require(node <= 0xffff, "cmi_remote_req_resp: the node of a module");
    require(tag_1 != nullptr && tag_2 != nullptr, "cmi_remote_req_resp: tags");
    if (request != length)
        expect_accessible(request, *length, "cmi_remote_req_resp: the body can be read");
    *length = 0;
    *response_out = nullptr;
    if (platform().fails(MTS_ERRNO_TIMED_OUT))
        return -1;
    *response_out = take_answer(length);
    return static_cast<std::int32_t>(platform().decide(8) == 7 ? 0x4071000a : 0);
}

// Debug, history and syslog.

syslog_facility_t *sdwrap_sys_facility;

std::int32_t sdwrap_dbg_init(std::int32_t, const char *, const char *, std::uint32_t, const char *const *,
                             std::uint32_t, std::uint32_t, std::uint32_t)
{
    return 0;
}

std::int32_t sdwrap_sys_init_helper(std::int32_t, const char *, const char *, std::uint32_t, std::uint32_t,
                                    std::uint32_t, std::uint32_t)
{
    return 0;
}

std::int32_t sdwrap_process_msg(std::int32_t, mts_message_t *message)
{
    platform().expect_current(message, "sdwrap_process_msg: a received message");
    message->taken_by_debug = platform().decide(16) == 15;
    return message->taken_by_debug ? 0 : 1;
}

std::int32_t sdwrap_hist_event_subtype_check(std::uint32_t, std::uint32_t)
{
    return platform().records_history ? 0 : 1;
}

std::int32_t sdwrap_hist_event(std::uint32_t, std::uint32_t length, const char *event)
{
    require(length < LOG_LINE_BYTES && std::strlen(event) == length, "a history event has the length told");
    errno = EIO; // the daemon's log keeps the errno of its callers
    return 0;
}

std::int32_t sdwrap_chk_int(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t)
{
    return 0;
}

void buginf(const char *, ...) {}

void vesk_syslog(std::uint32_t, const char *, const char *, std::uint32_t) {}
