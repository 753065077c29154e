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

} // namespace

// What is hashed for a signature.
class image_signature_check::signed_message
{
public:
    signed_message()
    {
        if (sodium_init() < 0)
            std::abort(); // the system gives no random numbers
        (void)crypto_sign_init(&state_);
    }
    void add(const std::uint8_t *bytes, std::size_t count) { (void)crypto_sign_update(&state_, bytes, count); }
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

image_signature_check::image_signature_check() : message_(std::make_unique<signed_message>()) {}
image_signature_check::~image_signature_check() = default;

image_reader::byte_sink image_signature_check::sink()
{
    return [this](const std::uint8_t *bytes, std::size_t count) { message_->add(bytes, count); };
}

image_signature_state image_signature_check::state(const image_reading &reading, const trusted_keys &keys)
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
    return message_->is_signed_by(*key, reading.manifest.signature) ? image_signature_state::good
                                                                    : image_signature_state::bad;
}

image_signature image_signature_check::sign(const signing_key &seed)
{
    return message_->sign(key_pair(seed));
}

std::optional<image_signature_state> check_image_signature(int fd, const trusted_keys &keys,
                                                           image_reading &reading_out)
{
    image_signature_check check;
    if (!read_image(fd, reading_out, check.sink()))
        return std::nullopt;
    return check.state(reading_out, keys);
}

image_signature sign_image(const std::uint8_t *bytes, std::size_t count, const signing_key &seed)
{
    image_signature_check message;
    image_reader reader(message.sink());
    reader.add(bytes, count);
    (void)reader.finish(); // gives the message its end; the caller has made the manifest
    return message.sign(seed);
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
