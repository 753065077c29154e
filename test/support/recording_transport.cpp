// The message transport and the debug wrapper of the recording platform.
#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cmi.h"
#include "record_forms.h"
#include "sdwrap.h"
#include "tlv.h"

namespace
{

std::string numbered(const mts_message_t *message)
{
    return message == nullptr ? "null" : "#" + text(message->number);
}

const std::uint8_t *answer_end; // of the last answer that cmi_remote_req_resp gave

std::uint32_t big_endian(const std::uint8_t *data, std::size_t length)
{
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < length; ++i)
        number = number << 8 | data[i];
    return number;
}

} // namespace

// Message transport.

std::int32_t mts_bind(std::uint32_t kind, std::int32_t sap, const std::uint32_t options[6], const char *name)
{
    static constexpr std::int64_t first_handle = 7;
    const auto bound = static_cast<std::int64_t>(platform().calls("mts_bind").size());
    return status(platform().called("mts_bind", joined({text(kind), text(sap), words(options, 6), quoted(name)}),
                                    {first_handle + bound, 0}));
}

std::int32_t mts_recv(std::int32_t handle, mts_message_t **message_out, const std::uint32_t options[10])
{
    (void)platform().called("mts_recv", joined({text(handle), words(options, 10)}));
    return platform().receive(message_out) ? 0 : -1;
}

std::uint32_t mts_opc_get(const mts_message_t *message)
{
    (void)platform().called("mts_opc_get", numbered(message));
    return message->opcode;
}

void *mts_payload_get(mts_message_t *message)
{
    (void)platform().called("mts_payload_get", numbered(message));
    return message->payload.data();
}

std::int32_t mts_saddr_get(const mts_message_t *message, mts_address_t *address_out)
{
    *address_out = message->source;
    return status(platform().called("mts_saddr_get", numbered(message)));
}

std::int32_t mts_send(std::int32_t handle, std::uint32_t node, std::uint32_t sap, std::uint32_t opcode,
                      const void *payload, std::uint32_t length, std::uint32_t reserved_1, std::uint32_t reserved_2,
                      std::uint32_t reserved_3)
{
    return status(platform().called(
        "mts_send", joined({text(handle), hexed(node), text(sap), text(opcode), dumped(payload, length),
                            text(length), text(reserved_1), text(reserved_2), text(reserved_3)})));
}

std::int32_t mts_respond_reject(std::int32_t handle, std::uint32_t reserved_1, std::uint32_t reserved_2,
                                mts_message_t *message, std::uint32_t reserved_3, std::uint32_t reserved_4)
{
    return status(
        platform().called("mts_respond_reject", joined({text(handle), text(reserved_1), text(reserved_2),
                                                        numbered(message), text(reserved_3), text(reserved_4)})));
}

std::int32_t mts_drop(std::int32_t handle, mts_message_t *message)
{
    const scripted_result result = platform().called("mts_drop", text(handle));
    platform().dropped(message);
    return status(result);
}

std::int32_t cmi_response(const void *payload, std::uint32_t length, std::int32_t handle, mts_message_t *message,
                          std::uint32_t answer_status)
{
    const std::string body = payload == nullptr ? "null" : dumped(payload, length);
    return status(platform().called(
        "cmi_response", joined({body, text(length), text(handle), numbered(message), hexed(answer_status)})));
}

std::int32_t cmi_remote_req_resp(std::uint32_t opcode, std::uint32_t request_type, const void *request,
                                 void **response_out, std::uint32_t *length, const char *tag_1, const char *tag_2,
                                 std::uint32_t sap, std::uint32_t node, std::int32_t handle,
                                 std::uint32_t wait_limit)
{
    const std::string body = request == length ? "length" : dumped(request, *length);
    const scripted_result result = platform().called(
        "cmi_remote_req_resp", joined({text(opcode), text(request_type), body, text(*length), quoted(tag_1),
                                       quoted(tag_2), text(sap), hexed(node), text(handle), text(wait_limit)}));
    *response_out = nullptr;
    *length = 0;
    if (result.value != 0 || platform().responses.empty())
        return status(result);
    const bytes response = platform().responses.front();
    platform().responses.pop_front();
    // Readable beyond its end, as promised, and not a byte further.
    *response_out = std::calloc(1, std::max<std::size_t>(response.size(), MTS_READABLE_PAYLOAD_BYTES));
    std::copy(response.begin(), response.end(), static_cast<std::uint8_t *>(*response_out));
    *length = static_cast<std::uint32_t>(response.size());
    answer_end = static_cast<const std::uint8_t *>(*response_out) + response.size();
    return status(result);
}

// The records of an array that lies in the last answer; none beyond the answer's end or the array's count.
std::int32_t tlv_aligned_array_get_next_tlv(const void *array, std::uint16_t *type_out, std::uint16_t *length_out,
                                            const void **value_out, std::uint32_t, std::uint32_t *cursor)
{
    (void)platform().called("tlv_aligned_array_get_next_tlv", text(*cursor));
    static constexpr std::size_t header_bytes = 4;
    const auto *position = static_cast<const std::uint8_t *>(array);
    if (answer_end - position < 4)
        return -1;
    const std::uint32_t count = big_endian(position, 4);
    position += 4;
    for (std::uint32_t index = 0; index < count; ++index) {
        if (static_cast<std::size_t>(answer_end - position) < header_bytes)
            return -1;
        const std::uint32_t length = big_endian(position + 2, 2);
        if (static_cast<std::size_t>(answer_end - position) < header_bytes + length)
            return -1;
        if (index == *cursor) {
            *type_out = static_cast<std::uint16_t>(big_endian(position, 2));
            *length_out = static_cast<std::uint16_t>(length);
            *value_out = position + header_bytes;
            ++*cursor;
            return 0;
        }
        const std::size_t padded = header_bytes + (length + 3) / 4 * 4;
        position += std::min(padded, static_cast<std::size_t>(answer_end - position));
    }
    return -1;
}

// Debug, history and syslog. A history event is "file:line message"; the record keeps the message.

syslog_facility_t *sdwrap_sys_facility;

std::int32_t sdwrap_dbg_init(std::int32_t handle, const char *name, const char *title, std::uint32_t count,
                             const char *const *names, std::uint32_t reserved_1, std::uint32_t reserved_2,
                             std::uint32_t reserved_3)
{
    std::string list;
    for (std::uint32_t i = 0; i < count; ++i)
        list += (list.empty() ? "" : ", ") + quoted(names[i]);
    return status(platform().called(
        "sdwrap_dbg_init", joined({text(handle), quoted(name), quoted(title), text(count), "{" + list + "}",
                                   text(reserved_1), text(reserved_2), text(reserved_3)})));
}

std::int32_t sdwrap_sys_init_helper(std::int32_t handle, const char *name, const char *title,
                                    std::uint32_t facility_number, std::uint32_t reserved_1,
                                    std::uint32_t reserved_2, std::uint32_t reserved_3)
{
    const std::string facility = sdwrap_sys_facility == nullptr ? "no facility" : sdwrap_sys_facility->name;
    return status(platform().called("sdwrap_sys_init_helper",
                                    joined({text(handle), quoted(name), quoted(title), text(facility_number),
                                            text(reserved_1), text(reserved_2), text(reserved_3), facility})));
}

std::int32_t sdwrap_process_msg(std::int32_t handle, mts_message_t *message)
{
    return status(platform().called("sdwrap_process_msg", joined({text(handle), numbered(message)})));
}

std::int32_t sdwrap_hist_event_subtype_check(std::uint32_t event_type, std::uint32_t subtype)
{
    return status(platform().called("sdwrap_hist_event_subtype_check", joined({hexed(event_type), text(subtype)})));
}

std::int32_t sdwrap_hist_event(std::uint32_t event_type, std::uint32_t length, const char *event)
{
    const scripted_result result =
        platform().called("sdwrap_hist_event", joined({hexed(event_type), text(length), quoted(event)}));
    const char *blank = std::strchr(event, ' ');
    platform().note("log(" + std::string(blank == nullptr ? event : blank + 1) + ")");
    return status(result);
}

std::int32_t sdwrap_chk_int(std::uint32_t category, std::uint32_t reserved_1, std::uint32_t reserved_2,
                            std::uint32_t reserved_3)
{
    return status(platform().called(
        "sdwrap_chk_int", joined({text(category), text(reserved_1), text(reserved_2), text(reserved_3)})));
}

void buginf(const char *format, ...)
{
    std::array<char, 1024> message;
    std::va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(message.data(), message.size(), format, arguments);
    va_end(arguments);
    (void)platform().called("buginf", message.data());
}

void vesk_syslog(std::uint32_t severity, const char *format, const char *facility_name,
                 std::uint32_t message_severity)
{
    (void)platform().called(
        "vesk_syslog", joined({text(severity), quoted(format), quoted(facility_name), text(message_severity)}));
}
