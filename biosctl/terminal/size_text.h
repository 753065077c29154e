// Sizes for people.
#pragma once

#include <cstdint>
#include <string>

// "8 MiB", "64 KiB", "100 B".
inline std::string size_text(std::uint64_t bytes)
{
    constexpr std::uint64_t KIB = 1024;
    constexpr std::uint64_t MIB = KIB * KIB;
    if (bytes >= MIB && bytes % MIB == 0)
        return std::to_string(bytes / MIB) + " MiB";
    if (bytes >= KIB && bytes % KIB == 0)
        return std::to_string(bytes / KIB) + " KiB";
    return std::to_string(bytes) + " B";
}
