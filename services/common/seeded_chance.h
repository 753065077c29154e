// Chance that can be repeated: the same number in, the same event out.
#pragma once

#include <cmath>
#include <cstdint>

// From one number of a sequence to the next.
constexpr std::uint64_t SEED_STEP = 0x9e3779b97f4a7c15;

// A well-spread number from any, neighbours included (SplitMix64).
constexpr std::uint64_t spread_number(std::uint64_t number)
{
    number += SEED_STEP;
    number = (number ^ number >> 30) * 0xbf58476d1ce4e5b9;
    number = (number ^ number >> 27) * 0x94d049bb133111eb;
    return number ^ number >> 31;
}

// Whether something of a probability happens.
//   number  well spread
//   share   the probability, 0 to 1
inline bool chance_happens(std::uint64_t number, double share)
{
    constexpr int KEPT_BITS = 53; // of a double
    return std::ldexp(static_cast<double>(number >> (64 - KEPT_BITS)), -KEPT_BITS) < share;
}
