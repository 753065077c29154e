// The clock that waits are measured with.
#pragma once

#include <cstdint>
#include <ctime>

constexpr std::int64_t MICROSECONDS = 1'000'000; // in a second

inline std::int64_t microseconds_of(clockid_t clock)
{
    timespec now{};
    (void)::clock_gettime(clock, &now);
    return std::int64_t{now.tv_sec} * MICROSECONDS + now.tv_nsec / 1000;
}

// Microseconds since some moment in the past; never set back.
inline std::int64_t monotonic_us()
{
    return microseconds_of(CLOCK_MONOTONIC);
}

// The same at the system's last tick, up to 10 ms ago, for a third of the time.
inline std::int64_t monotonic_tick_us()
{
    return microseconds_of(CLOCK_MONOTONIC_COARSE);
}
