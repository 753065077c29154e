// Integers in network byte order, as they stand in messages. Byte arrays, so that they have alignment 1 and a
// forgotten conversion does not compile: load() and store() are the only way in and out.
#pragma once

#include <cstdint>

struct be16 {
    std::uint8_t byte[2];

    constexpr std::uint16_t load() const { return static_cast<std::uint16_t>(byte[0] << 8 | byte[1]); }
    constexpr void store(std::uint16_t value)
    {
        byte[0] = static_cast<std::uint8_t>(value >> 8);
        byte[1] = static_cast<std::uint8_t>(value);
    }
};

struct be32 {
    std::uint8_t byte[4];

    constexpr std::uint32_t load() const
    {
        return std::uint32_t{byte[0]} << 24 | std::uint32_t{byte[1]} << 16 | std::uint32_t{byte[2]} << 8 |
               std::uint32_t{byte[3]};
    }
    constexpr void store(std::uint32_t value)
    {
        byte[0] = static_cast<std::uint8_t>(value >> 24);
        byte[1] = static_cast<std::uint8_t>(value >> 16);
        byte[2] = static_cast<std::uint8_t>(value >> 8);
        byte[3] = static_cast<std::uint8_t>(value);
    }
    static constexpr be32 of(std::uint32_t value)
    {
        be32 word{};
        word.store(value);
        return word;
    }
};

struct be64 {
    be32 high;
    be32 low;

    constexpr std::uint64_t load() const { return std::uint64_t{high.load()} << 32 | low.load(); }
    static constexpr be64 of(std::uint64_t value)
    {
        return {be32::of(static_cast<std::uint32_t>(value >> 32)), be32::of(static_cast<std::uint32_t>(value))};
    }
};

static_assert(sizeof(be64) == 8 && alignof(be64) == 1);
static_assert(sizeof(be16) == 2 && alignof(be16) == 1);
static_assert(sizeof(be32) == 4 && alignof(be32) == 1);
