// MD5 (RFC 1321), which PPC images have in their header: a checksum against accidents, and no proof of anything.
#pragma once

#include "block_hash.h"

struct md5_rounds {
    static constexpr std::endian ORDER = std::endian::little;

    void take_block(const std::array<std::uint32_t, 16> &words);

    std::array<std::uint32_t, 4> state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
};

extern template class block_hash<md5_rounds>;
using md5 = block_hash<md5_rounds>;
using md5_digest = md5::digest_type;
