#include "lock_messages.h"

#include <cstring>

#include "bios_opcodes.h"
#include "bios_results.h"

daemon_request encode_lock_request(bios_module_lock_operation operation, std::uint32_t node)
{
    return daemon_request_of(MTS_OPC_BIOS_MODULE_LOCK, bios_module_lock_req_t{be32::of(operation), be32::of(node)});
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
