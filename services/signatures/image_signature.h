// Signatures of images: Ed25519ph over all bytes but the signature itself (image_manifest.h says what counts as
// zeros). An image is read once, piece by piece; what is signed and what the reading says of it are the same bytes.
#pragma once

#include <memory>
#include <optional>

#include "image_manifest.h"
#include "signing_key.h"

enum class image_signature_state {
    good,
    damaged_manifest,
    not_signed, // no manifest, or one without a signature
    unknown_key,
    revoked_key,
    bad,
};

// What an image's signature is about, taken while the image is read by an image_reader.
class image_signature_check
{
public:
    image_signature_check();
    ~image_signature_check();
    image_signature_check(const image_signature_check &) = delete;
    image_signature_check &operator=(const image_signature_check &) = delete;

    // For the reader. It refers to this object.
    image_reader::byte_sink sink();

    // Of what the reader has found. To be asked once.
    image_signature_state state(const image_reading &reading, const trusted_keys &keys);

    // The signature of what was read, instead.
    image_signature sign(const signing_key &seed);

private:
    class signed_message;
    std::unique_ptr<signed_message> message_;
};

// Checks the signature of an image that is read from an open file.
//   reading_out  what the image was found to be
// Nothing with errno, as of read_image.
[[nodiscard]] std::optional<image_signature_state> check_image_signature(int fd, const trusted_keys &keys,
                                                                         image_reading &reading_out);

// The signature of an image whose manifest has its final digest and the id of the key.
//   seed  the secret half
image_signature sign_image(const std::uint8_t *bytes, std::size_t count, const signing_key &seed);

// A seed out of chance, and the public half that belongs to a seed.
signing_key new_signing_seed();
signing_key public_half_of(const signing_key &seed);
