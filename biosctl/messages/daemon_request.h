// A request to a daemon. The encoders of this folder make it; who has it sent needs to know neither opcode nor
// body.
#pragma once

#include <cstdint>
#include <vector>

struct daemon_request {
    std::uint32_t opcode = 0;
    std::vector<std::uint8_t> body = {};
};

template<class Record>
daemon_request daemon_request_of(std::uint32_t opcode, const Record &body)
{
    const auto *begin = reinterpret_cast<const std::uint8_t *>(&body);
    return {opcode, {begin, begin + sizeof body}};
}
