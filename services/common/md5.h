// MD5 (RFC 1321), which PPC images have in their header: a checksum against accidents, and no proof of anything.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

using md5_digest = std::array<std::uint8_t, 16>;

class md5
{
public:
    // Bytes in the order of the message; any number of calls.
    void add(const void *bytes, std::size_t count);

    // Of all that was added. The object is used up.
    md5_digest digest();

private:
    void take_block(const std::uint8_t *block);

    std::array<std::uint32_t, 4> state_ = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    std::array<std::uint8_t, 64> waiting_ = {}; // the beginning of a block
    std::uint64_t length_ = 0;                  // bytes added
};
