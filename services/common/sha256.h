// SHA-256 (FIPS 180-4). The daemon's process uses nothing beyond libc, so it is here and not from a library.
#pragma once

#include <string>

#include "block_hash.h"

struct sha256_rounds {
    static constexpr std::endian ORDER = std::endian::big;

    // By the processor's instructions for it when it has them, about four times as fast.
    void take_block(const std::array<std::uint32_t, 16> &words);
    // Without them.
    void take_block_plainly(const std::array<std::uint32_t, 16> &words);

    std::array<std::uint32_t, 8> state = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                          0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
};

extern template class block_hash<sha256_rounds>;
using sha256 = block_hash<sha256_rounds>;
using sha256_digest = sha256::digest_type;

// 64 hexadecimal digits.
std::string sha256_text(const sha256_digest &digest);
