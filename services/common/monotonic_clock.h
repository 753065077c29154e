// The clock that waits are measured with.
#pragma once

#include <cstdint>
#include <ctime>

constexpr std::int64_t MICROSECONDS = 1'000'000; // in a second

// Microseconds since some moment in the past; never set back.
inline std::int64_t monotonic_us()
{
    timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * MICROSECONDS + now.tv_nsec / 1000;
}
