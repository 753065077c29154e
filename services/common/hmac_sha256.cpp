#include "hmac_sha256.h"

namespace
{

constexpr std::size_t BLOCK_BYTES = 64; // of SHA-256
constexpr std::uint8_t INNER_PAD = 0x36;
constexpr std::uint8_t OUTER_PAD = 0x5c;

std::array<std::uint8_t, BLOCK_BYTES> padded(const shared_key &key, std::uint8_t pad)
{
    std::array<std::uint8_t, BLOCK_BYTES> block;
    block.fill(pad);
    for (std::size_t k = 0; k < key.size(); ++k)
        block[k] = static_cast<std::uint8_t>(key[k] ^ pad);
    return block;
}

} // namespace

hmac_sha256::hmac_sha256(const shared_key &key)
{
    inner_.add(padded(key, INNER_PAD).data(), BLOCK_BYTES);
    outer_.add(padded(key, OUTER_PAD).data(), BLOCK_BYTES);
}

sha256_digest hmac_sha256::code()
{
    const sha256_digest inner = inner_.digest();
    outer_.add(inner.data(), inner.size());
    return outer_.digest();
}

bool are_equal_codes(const sha256_digest &one, const sha256_digest &other)
{
    unsigned difference = 0;
    for (std::size_t k = 0; k < one.size(); ++k)
        difference |= static_cast<unsigned>(one[k] ^ other[k]);
    return difference == 0;
}
