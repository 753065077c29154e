// SHA-256 (FIPS 180-4). The daemon's process uses nothing beyond libc, so it is here and not from a library.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

using sha256_digest = std::array<std::uint8_t, 32>;

class sha256
{
public:
    // Bytes in the order of the message; any number of calls.
    void add(const void *bytes, std::size_t count);

    // Of all that was added. The object is used up.
    sha256_digest digest();

private:
    void take_block(const std::uint8_t *block);

    std::array<std::uint32_t, 8> state_ = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                           0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    std::array<std::uint8_t, 64> waiting_ = {}; // the beginning of a block
    std::uint64_t length_ = 0;                  // bytes added
};

// 64 hexadecimal digits.
std::string sha256_text(const sha256_digest &digest);
