#include "lock_messages.h"

#include <cstring>

#include "bios_results.h"

std::vector<std::uint8_t> encode_lock_request(bios_module_lock_operation operation, std::uint32_t node)
{
    const bios_module_lock_req_t request{be32::of(operation), be32::of(node)};
    const auto *begin = reinterpret_cast<const std::uint8_t *>(&request);
    return {begin, begin + sizeof request};
}

std::optional<std::uint32_t> decode_lock_answer(const request_answer &answer, bios_module_lock_operation operation,
                                                std::uint32_t node)
{
    bios_module_lock_reply_t reply{};
    if (answer.status != BIOS_OK || answer.payload.size() < sizeof reply)
        return std::nullopt;
    std::memcpy(&reply, answer.payload.data(), sizeof reply);
    if (reply.operation.load() != operation || reply.node_id.load() != node)
        return std::nullopt;
    return reply.result.load();
}
