// What every endpoint is bound with and every request is made with, by the daemon and by who talks to it. The
// meaning of these words is the transport's (platform/mts.h, platform/cmi.h).
#pragma once

#include <cstdint>

#include "mts.h"

constexpr std::uint32_t BIND_KIND = 1;
constexpr std::int32_t ANY_SAP = -1; // a service access point of the transport's choice
constexpr std::uint32_t BIND_OPTIONS[MTS_BIND_OPTION_WORDS] = {1, 0, 1024, 0, 0, 15};
constexpr std::uint32_t REQUEST_TYPE = 3;
