// RFC 4231 has no key of 32 bytes; the codes here are those of OpenSSL, "openssl dgst -sha256 -mac HMAC".
#include <string>

#include <gtest/gtest.h>

#include "hmac_sha256.h"

namespace
{

shared_key counting_key()
{
    shared_key key;
    for (std::size_t k = 0; k < key.size(); ++k)
        key[k] = static_cast<std::uint8_t>(k);
    return key;
}

std::string code_of(const shared_key &key, const std::string &message)
{
    hmac_sha256 code(key);
    code.add(message.data(), message.size());
    return sha256_text(code.code());
}

} // namespace

TEST(HmacSha256, IsThatOfAnotherProgram)
{
    EXPECT_EQ(code_of(counting_key(), ""), "d38b42096d80f45f826b44a9d5607de72496a415d3f4a1a8c88e3bb9da8dc1cb");
    EXPECT_EQ(code_of(counting_key(), "a message"),
              "d55a64a67afe61c6d12d6906df7711f897fdd29a0d15e5168a24d871bb69a7b1");
    EXPECT_EQ(code_of(counting_key(), std::string(1000, 'm')),
              "1c9ddf7413454aca9f7ecdc100c621b4c8f9a66dad8d1494b35d9e0852017b3d");
}

TEST(HmacSha256, IsAnotherOneForAnotherKey)
{
    shared_key other = counting_key();
    other.back() ^= 1;
    EXPECT_NE(code_of(other, "a message"), code_of(counting_key(), "a message"));
}

TEST(HmacSha256, CodesAreEqualInAllTheirBytes)
{
    const sha256_digest one = {1, 2, 3};
    for (std::size_t k = 0; k < one.size(); ++k) {
        sha256_digest other = one;
        other[k] ^= 0x80;
        EXPECT_FALSE(are_equal_codes(one, other)) << k;
    }
    EXPECT_TRUE(are_equal_codes(one, one));
}
