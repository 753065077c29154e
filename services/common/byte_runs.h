// Operations on runs of bytes, many at a time: a programming goes over a flash again and again, and byte by byte it
// would take longer than the disk does. The runs may begin anywhere and must not overlap.
#pragma once

#include <cstddef>
#include <cstdint>

// Bytes of any place, in one register of the processor where it has such.
typedef std::uint32_t byte_lanes __attribute__((vector_size(16), aligned(1), may_alias));

constexpr std::size_t BYTE_LANES_BYTES = sizeof(byte_lanes);

inline byte_lanes &lanes_at(std::uint8_t *place)
{
    return *reinterpret_cast<byte_lanes *>(place);
}

inline const byte_lanes &lanes_at(const std::uint8_t *place)
{
    return *reinterpret_cast<const byte_lanes *>(place);
}

// to[i] = ~from[i]
inline void complement_bytes(const std::uint8_t *from, std::uint8_t *to, std::size_t length)
{
    std::size_t done = 0;
    for (; length - done >= BYTE_LANES_BYTES; done += BYTE_LANES_BYTES)
        lanes_at(to + done) = ~lanes_at(from + done);
    for (; done < length; ++done)
        to[done] = static_cast<std::uint8_t>(~from[done]);
}

// place[i] &= mask[i]
inline void clear_bits(std::uint8_t *place, const std::uint8_t *mask, std::size_t length)
{
    std::size_t done = 0;
    for (; length - done >= BYTE_LANES_BYTES; done += BYTE_LANES_BYTES)
        lanes_at(place + done) &= lanes_at(mask + done);
    for (; done < length; ++done)
        place[done] &= mask[done];
}

// Whether wanted has a bit that is not there.
inline bool has_further_bits(const std::uint8_t *wanted, const std::uint8_t *there, std::size_t length)
{
    std::size_t done = 0;
    byte_lanes further = {};
    for (; length - done >= BYTE_LANES_BYTES; done += BYTE_LANES_BYTES)
        further |= lanes_at(wanted + done) & ~lanes_at(there + done);
    std::uint32_t any = further[0] | further[1] | further[2] | further[3];
    for (; done < length; ++done)
        any |= static_cast<std::uint32_t>(wanted[done] & ~there[done]);
    return any != 0;
}
