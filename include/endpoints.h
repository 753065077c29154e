// What every endpoint is bound with and every request is made with, by the daemon and by who talks to it. The
// meaning of these words is the transport's (platform/mts.h, platform/cmi.h).
#pragma once

#include <array>
#include <cstdint>

#include "mts.h"

constexpr std::uint32_t BIND_KIND = 1;
constexpr std::int32_t ANY_SAP = -1; // a service access point of the transport's choice
constexpr std::uint32_t BIND_OPTIONS[MTS_BIND_OPTION_WORDS] = {1, 0, 1024, 0, 0, 15};
constexpr std::uint32_t REQUEST_TYPE = 3;

// Options of mts_recv: wait for a message, at most so many seconds.
constexpr std::array<std::uint32_t, MTS_RECV_OPTION_WORDS> receive_options(std::uint32_t wait_s)
{
    std::array<std::uint32_t, MTS_RECV_OPTION_WORDS> options{};
    options[MTS_RECV_OPTION_MODE] = 1;
    options[MTS_RECV_OPTION_WAIT_S] = wait_s;
    return options;
}
