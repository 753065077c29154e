#include "programming_messages.h"

#include <algorithm>
#include <cstddef>

#include "bios_opcodes.h"

namespace
{

constexpr std::uint32_t PERCENT_MAX = 100;

} // namespace

daemon_request encode_programming_request(const programming_request &request)
{
    bios_programming_req_t body{};
    body.programming_mod_num.store(request.module);
    if (request.image)
        std::copy_n(request.image->data(), std::min(request.image->size(), IMAGE_URI_BYTES_MAX), body.uri);
    else
        body.def.store(1);
    body.type = request.type;
    return daemon_request_of(MTS_OPC_BIOS_PROGRAMMING_START, body);
}

bool listen_for_end_notices(client_endpoint &endpoint)
{
    return endpoint.listen(MTS_OPC_BIOS_PROGRAMMING_NOTIFY);
}

std::optional<told_progress> decode_progress(const received_message &message)
{
    const auto phase = message.word(offsetof(bios_programming_progress_t, phase));
    const auto percent = message.word(offsetof(bios_programming_progress_t, percent));
    const auto attempt = message.word(offsetof(bios_programming_progress_t, attempt));
    if (message.opcode != MTS_OPC_BIOS_PROGRAMMING_PROGRESS || !phase || !percent || !attempt ||
        *percent > PERCENT_MAX)
        return std::nullopt;
    return told_progress{*phase, *percent, *attempt};
}

std::optional<told_end> decode_end_notice(const received_message &message)
{
    const auto result = message.word(offsetof(bios_programming_notify_t, result));
    const auto module = message.word(offsetof(bios_programming_notify_t, programming_mod_num));
    if (message.opcode != MTS_OPC_BIOS_PROGRAMMING_NOTIFY || !result || !module)
        return std::nullopt;
    return told_end{*result, *module};
}

std::optional<std::uint32_t> decode_done(const received_message &message)
{
    return message.opcode == MTS_OPC_BIOS_PROGRAMMING_DONE ? message.word(offsetof(bios_programming_done_t, result))
                                                           : std::nullopt;
}
