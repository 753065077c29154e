#include "programming_messages.h"

#include <algorithm>
#include <cstddef>

namespace
{

constexpr std::uint32_t PERCENT_MAX = 100;

} // namespace

std::vector<std::uint8_t> encode_programming_request(const programming_request &request)
{
    bios_programming_req_t body{};
    body.programming_mod_num.store(request.module);
    if (request.image)
        std::copy_n(request.image->data(), std::min(request.image->size(), IMAGE_URI_BYTES_MAX), body.uri);
    else
        body.def.store(1);
    body.type = request.type;
    const auto *begin = reinterpret_cast<const std::uint8_t *>(&body);
    return {begin, begin + sizeof body};
}

std::optional<told_progress> decode_progress(const received_message &message)
{
    const auto phase = message.word(offsetof(bios_programming_progress_t, phase));
    const auto percent = message.word(offsetof(bios_programming_progress_t, percent));
    const auto attempt = message.word(offsetof(bios_programming_progress_t, attempt));
    if (!phase || !percent || !attempt || *percent > PERCENT_MAX)
        return std::nullopt;
    return told_progress{*phase, *percent, *attempt};
}

std::optional<told_end> decode_end_notice(const received_message &message)
{
    const auto result = message.word(offsetof(bios_programming_notify_t, result));
    const auto module = message.word(offsetof(bios_programming_notify_t, programming_mod_num));
    if (!result || !module)
        return std::nullopt;
    return told_end{*result, *module};
}

std::optional<std::uint32_t> decode_done(const received_message &message)
{
    return message.word(offsetof(bios_programming_done_t, result));
}
