// What an image says of itself: a record of 256 bytes in its unused space, at an offset that is a multiple of 256
// and found by the mark at its beginning. An image has one or none.
//
//     offset  size  content
//          0    16  mark
//         16     4  form of the record, 1
//         20     4  size of the image in bytes
//         24     4  family, a number of the table of BIOS flashes
//         28     4  security version
//         32    32  version, as it is shown: "v3.5.0(09/17/12)"
//         64    32  name of the family, for people: "x86n-tarvik-a"
//         96     4  number of card ids, at most 14; 0: every card of the family
//        100    28  card ids of 2 bytes each; unused ones are 0
//        128    24  unused, 0
//        152     8  id of the key that has signed the image; 0: not signed
//        160    32  SHA-256 of the image
//        192    64  signature of the image, Ed25519ph; 0 without a key
//
// Numbers are in network byte order, texts printable and padded with zeros. Three stretches cannot count in what is
// calculated from the image and then put into it, and count as zeros: the signature in both the SHA-256 and the
// signature, the SHA-256 in itself, and in a PPC image (its first bytes are 27 05 19 56) the MD5 in its bytes 4 to
// 19, which is calculated last. That MD5 is checked here, so that no byte of an intact image is free.
//
// This file and its neighbours use no library: the daemon's process has them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "big_endian.h"
#include "md5.h"
#include "sha256.h"

constexpr std::size_t IMAGE_MARK_BYTES = 16;
constexpr std::size_t IMAGE_CARD_IDS_MAX = 14;
constexpr std::size_t IMAGE_KEY_ID_BYTES = 8;
constexpr std::size_t IMAGE_SIGNATURE_BYTES = 64;
constexpr std::uint32_t IMAGE_MANIFEST_FORM = 1;
constexpr std::uint64_t IMAGE_BYTES_MAX = std::uint64_t{64} << 20; // of any image

struct image_manifest_record {
    std::uint8_t mark[IMAGE_MARK_BYTES];
    be32 form;
    be32 size_bytes;
    be32 family;
    be32 security_version;
    char version[32];
    char family_name[32];
    be32 card_id_count;
    be16 card_ids[IMAGE_CARD_IDS_MAX];
    std::uint8_t unused[24];
    std::uint8_t key_id[IMAGE_KEY_ID_BYTES];
    std::uint8_t digest[32];
    std::uint8_t signature[IMAGE_SIGNATURE_BYTES];
};
static_assert(sizeof(image_manifest_record) == 256);
static_assert(offsetof(image_manifest_record, version) == 32);
static_assert(offsetof(image_manifest_record, card_id_count) == 96);
static_assert(offsetof(image_manifest_record, unused) == 128);
static_assert(offsetof(image_manifest_record, key_id) == 152);
static_assert(offsetof(image_manifest_record, digest) == 160);
static_assert(offsetof(image_manifest_record, signature) == 192);

constexpr std::size_t IMAGE_MANIFEST_BYTES = sizeof(image_manifest_record);

using image_key_id = std::array<std::uint8_t, IMAGE_KEY_ID_BYTES>;
using image_signature = std::array<std::uint8_t, IMAGE_SIGNATURE_BYTES>;

// A record's facts, once it was found to be well-formed.
struct image_manifest {
    std::uint64_t offset = 0; // of the record in the image
    std::uint32_t size_bytes = 0;
    std::uint32_t family = 0;
    std::uint32_t security_version = 0;
    std::string version;
    std::string family_name;
    std::vector<std::uint16_t> card_ids; // empty: every card of the family
    sha256_digest digest = {};           // of the image, as defined above
    std::optional<image_key_id> key_id;  // nothing: not signed
    image_signature signature = {};

    bool operator==(const image_manifest &) const = default;

    // Whether cards of this id are among those that the image is for.
    bool is_for_card_id(std::uint32_t card_id) const;
};

enum class image_manifest_state {
    none,    // the image has no manifest
    damaged, // it has one that cannot be believed
    intact,  // it has one, whose digest is that of the image
};

// What an image was found to be.
struct image_reading {
    image_manifest_state state = image_manifest_state::none;
    const char *problem = ""; // of a damaged one, behind "the manifest": "does not have the digest of the image"
    image_manifest manifest;  // of an intact one
    std::uint64_t size_bytes = 0;
    sha256_digest sha256 = {}; // of all bytes as they are, with or without a manifest
};

// Takes the bytes of an image in order, in pieces of any length, and says what it is. The image is never whole in
// memory. It is hostile: whatever it holds, it comes to one of the three states.
class image_reader
{
public:
    // signed_bytes  takes, in order, all that a signature is about: the image with zeros where its signature is
    using byte_sink = std::function<void(const std::uint8_t *bytes, std::size_t count)>;
    explicit image_reader(byte_sink signed_bytes = {}) : signed_bytes_(std::move(signed_bytes)) {}

    void add(const void *bytes, std::size_t count);

    // Of all that was added. The object is used up.
    image_reading finish();

private:
    void take_stretches(const std::uint8_t *bytes, std::size_t count);
    void take_plain(const std::uint8_t *bytes, std::size_t count);
    void take_first(const std::uint8_t *bytes, std::size_t count);
    void take_manifest(const std::uint8_t *bytes);
    void take(const std::uint8_t *bytes, const std::uint8_t *for_signature, const std::uint8_t *for_digest,
              std::size_t count);
    const char *problem();

    byte_sink signed_bytes_;
    std::array<std::uint8_t, IMAGE_MANIFEST_BYTES> waiting_ = {}; // the beginning of a stretch
    std::size_t waiting_count_ = 0;
    std::uint64_t taken_bytes_ = 0;
    sha256 whole_;
    std::optional<sha256> covered_; // since it differs from the whole
    std::optional<md5> inner_;      // of a PPC image
    md5_digest stored_inner_ = {};
    unsigned marks_ = 0;
    const char *record_problem_ = nullptr;
    image_manifest manifest_;
};

// Reads an image from an open file, from its beginning, wherever the file stands.
// false with errno: EFBIG for more than IMAGE_BYTES_MAX, or that of the system call that failed.
[[nodiscard]] bool read_image(int fd, image_reading &reading_out, image_reader::byte_sink signed_bytes = {});

// Reads the facts of a record. Null, or its problem as above; manifest_out.offset is left as it is.
const char *image_manifest_load(const image_manifest_record &record, image_manifest &manifest_out);

// The record of facts: what image_manifest_load reads back unchanged.
// false when a text or the card ids do not fit, or a text is not printable.
[[nodiscard]] bool image_manifest_store(const image_manifest &manifest, image_manifest_record &record_out);

// A PPC image: its first bytes, and the MD5 in it, of its first 512 KiB with zeros in the place of the MD5.
constexpr std::array<std::uint8_t, 4> PPC_IMAGE_BEGINNING = {0x27, 0x05, 0x19, 0x56};
constexpr std::size_t PPC_DIGEST_OFFSET = 4;
constexpr std::size_t PPC_DIGESTED_BYTES = 0x80000;
