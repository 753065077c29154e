// How long a card waits for what it has asked another one, whatever its program says: the daemon waits half an hour
// for each answer, and stands still meanwhile. Tools wait as long as they say.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

#include "bios_opcodes.h"

constexpr std::uint32_t MODULE_QUERY_WAIT_S = 10;
constexpr std::uint32_t MODULE_START_WAIT_S = 30; // it may have to wait for a query that the module serves

// None for a request that takes as long as it takes, such as the installation of a boot loader.
constexpr std::optional<std::uint32_t> module_wait_limit_s(std::uint32_t opcode)
{
    switch (opcode) {
    case MTS_OPC_BIOS_GET_SRC_BIOS_VERSION:
    case MTS_OPC_BIOS_GET_MOD_BIOS_VERSION:
    case MTS_OPC_BIOS_GET_LC_BIOS_VERSION:
        return MODULE_QUERY_WAIT_S;
    case MTS_OPC_BIOS_PROGRAMMING_START:
        return MODULE_START_WAIT_S;
    default:
        return std::nullopt;
    }
}
