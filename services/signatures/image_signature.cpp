#include "image_signature.h"

#include <cstdlib>
#include <sodium.h>

namespace
{

static_assert(sizeof(signing_key) == crypto_sign_PUBLICKEYBYTES && sizeof(signing_key) == crypto_sign_SEEDBYTES);
static_assert(sizeof(image_signature) == crypto_sign_BYTES);

// A key pair, whose secret half does not stay in memory.
struct key_pair {
    signing_key public_half = {};
    std::array<std::uint8_t, crypto_sign_SECRETKEYBYTES> secret_half = {};

    explicit key_pair(const signing_key &seed)
    {
        (void)crypto_sign_seed_keypair(public_half.data(), secret_half.data(), seed.data()); // cannot fail
    }
    ~key_pair() { sodium_memzero(secret_half.data(), secret_half.size()); }
    key_pair(const key_pair &) = delete;
    key_pair &operator=(const key_pair &) = delete;
};

// What is hashed for a signature.
class signed_message
{
public:
    signed_message()
    {
        if (sodium_init() < 0)
            std::abort(); // the system gives no random numbers
        (void)crypto_sign_init(&state_);
    }
    image_reader::byte_sink sink()
    {
        return [this](const std::uint8_t *bytes, std::size_t count) {
            (void)crypto_sign_update(&state_, bytes, count);
        };
    }
    bool is_signed_by(const signing_key &key, const image_signature &signature)
    {
        return crypto_sign_final_verify(&state_, signature.data(), key.data()) == 0;
    }
    image_signature sign(const key_pair &keys)
    {
        image_signature signature;
        (void)crypto_sign_final_create(&state_, signature.data(), nullptr, keys.secret_half.data()); // cannot fail
        return signature;
    }

private:
    crypto_sign_state state_;
};

image_signature_state state_of(const image_reading &reading, const trusted_keys &keys, signed_message &message)
{
    if (reading.state == image_manifest_state::damaged)
        return image_signature_state::damaged_manifest;
    if (reading.state == image_manifest_state::none || !reading.manifest.key_id)
        return image_signature_state::not_signed;
    if (keys.is_revoked(*reading.manifest.key_id))
        return image_signature_state::revoked_key;
    const signing_key *key = keys.find(*reading.manifest.key_id);
    if (key == nullptr)
        return image_signature_state::unknown_key;
    return message.is_signed_by(*key, reading.manifest.signature) ? image_signature_state::good
                                                                  : image_signature_state::bad;
}

} // namespace

std::optional<image_signature_state> check_image_signature(int fd, const trusted_keys &keys,
                                                           image_reading &reading_out)
{
    signed_message message;
    if (!read_image(fd, reading_out, message.sink()))
        return std::nullopt;
    return state_of(reading_out, keys, message);
}

image_signature sign_image(const std::uint8_t *bytes, std::size_t count, const signing_key &seed)
{
    signed_message message;
    image_reader reader(message.sink());
    reader.add(bytes, count);
    (void)reader.finish(); // gives the message its end; the caller has made the manifest
    return message.sign(key_pair(seed));
}

signing_key new_signing_seed()
{
    if (sodium_init() < 0)
        std::abort(); // the system gives no random numbers
    signing_key seed;
    randombytes_buf(seed.data(), seed.size());
    return seed;
}

signing_key public_half_of(const signing_key &seed)
{
    return key_pair(seed).public_half;
}
