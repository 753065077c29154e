// A message authentication code by SHA-256 (RFC 2104): who does not have the key can neither make one nor change
// what it is of.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "sha256.h"

// A key that is shared. Shorter ones are not worth their name, longer ones are not stronger.
constexpr std::size_t SHARED_KEY_BYTES = 32;
using shared_key = std::array<std::uint8_t, SHARED_KEY_BYTES>;

class hmac_sha256
{
public:
    explicit hmac_sha256(const shared_key &key);

    // Bytes in the order of the message; any number of calls.
    void add(const void *bytes, std::size_t count) { inner_.add(bytes, count); }

    // Of all that was added. The object is used up.
    sha256_digest code();

private:
    sha256 inner_;
    sha256 outer_;
};

// In a time that does not tell how much of them is equal.
bool are_equal_codes(const sha256_digest &one, const sha256_digest &other);
