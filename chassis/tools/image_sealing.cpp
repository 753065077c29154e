#include "image_sealing.h"

#include <algorithm>
#include <cstring>

#include "bios_header.h"
#include "family_cards.h"
#include "image_error.h"
#include "image_signature.h"
#include "md5.h"

namespace
{

constexpr char ERASED = '\xff';

bool is_ppc_image(const std::string &image)
{
    return image.size() >= PPC_DIGESTED_BYTES &&
           std::equal(PPC_IMAGE_BEGINNING.begin(), PPC_IMAGE_BEGINNING.end(), image.begin(),
                      [](std::uint8_t wanted, char there) { return wanted == static_cast<std::uint8_t>(there); });
}

std::string ppc_digest_of(std::string image)
{
    image.resize(PPC_DIGESTED_BYTES);
    image.replace(PPC_DIGEST_OFFSET, sizeof(md5_digest), sizeof(md5_digest), '\0');
    md5 sum;
    sum.add(image.data(), image.size());
    const md5_digest digest = sum.digest();
    return {digest.begin(), digest.end()};
}

image_reading reading_of(const std::string &image)
{
    image_reader reader;
    reader.add(image.data(), image.size());
    return reader.finish();
}

// Where a manifest goes; throws when no stretch is free.
std::size_t free_place(const std::string &image)
{
    std::size_t best_end = 0;
    std::size_t best_length = 0;
    std::size_t length = 0;
    for (std::size_t at = 0; at + IMAGE_MANIFEST_BYTES <= image.size(); at += IMAGE_MANIFEST_BYTES) {
        const auto stretch = image.begin() + static_cast<std::ptrdiff_t>(at);
        const bool is_free =
            std::all_of(stretch, stretch + IMAGE_MANIFEST_BYTES, [](char byte) { return byte == ERASED; });
        length = is_free ? length + 1 : 0;
        if (length > best_length) {
            best_length = length;
            best_end = at + IMAGE_MANIFEST_BYTES;
        }
    }
    if (best_length == 0)
        throw image_error("the image has no 256 erased bytes at a multiple of 256 for the manifest");
    return best_end - IMAGE_MANIFEST_BYTES;
}

// Writes the record with the digest that belongs to it; the manifest gets that digest.
void write_sealed(std::string &image, image_manifest &manifest)
{
    image_manifest_record record;
    const auto write = [&] {
        if (!image_manifest_store(manifest, record))
            throw image_error("the manifest has no room for version " + manifest.version + " and " +
                              std::to_string(manifest.card_ids.size()) + " card ids");
        std::memcpy(image.data() + manifest.offset, &record, sizeof record);
    };
    manifest.digest = {};
    manifest.signature = {};
    write();
    std::string covered = image;
    if (is_ppc_image(covered))
        covered.replace(PPC_DIGEST_OFFSET, sizeof(md5_digest), sizeof(md5_digest), '\0');
    sha256 sum;
    sum.add(covered.data(), covered.size());
    manifest.digest = sum.digest();
    write();
}

// The last step: all else counts in this digest.
void renew_ppc_digest(std::string &image)
{
    if (is_ppc_image(image))
        image.replace(PPC_DIGEST_OFFSET, sizeof(md5_digest), ppc_digest_of(image));
}

} // namespace

image_manifest make_manifest(const std::string &image, const std::string &family, std::uint32_t security_version,
                             const std::string &version)
{
    const family_cards cards = cards_of_family(family);
    image_manifest manifest;
    manifest.size_bytes = static_cast<std::uint32_t>(image.size());
    manifest.family = cards.family;
    manifest.security_version = security_version;
    manifest.version = version;
    manifest.family_name = family;
    manifest.card_ids = cards.card_ids;
    bios_header header{};
    if (version.empty() && image.size() >= BIOS_HEADER_BYTES && bios_header_read(image.data(), header)) {
        const std::string text = bios_header_text(header);
        manifest.version = text.substr(std::min(text.find_first_not_of(' '), text.size()));
    }
    if (manifest.version.empty())
        throw image_error("the image has no x86n header to take the version from; give it by --version");
    return manifest;
}

void put_manifest(std::string &image, const image_manifest &manifest)
{
    if (image.size() > IMAGE_BYTES_MAX)
        throw image_error("the image is larger than 64 MiB");
    if (reading_of(image).state != image_manifest_state::none)
        throw image_error("the image has a manifest already");
    if (is_ppc_image(image) && image.compare(PPC_DIGEST_OFFSET, sizeof(md5_digest), ppc_digest_of(image)) != 0)
        throw image_error("the image looks like a PPC image, whose digest is wrong");
    image_manifest placed = manifest;
    placed.offset = free_place(image);
    write_sealed(image, placed);
    renew_ppc_digest(image);
}

void put_signature(std::string &image, const signing_key &seed)
{
    image_reading reading = reading_of(image);
    if (reading.state == image_manifest_state::none)
        throw image_error("the image has no manifest; bios_image manifest puts one into it");
    if (reading.state == image_manifest_state::damaged)
        throw image_error(std::string("the manifest ") + reading.problem);
    image_manifest &manifest = reading.manifest;
    manifest.key_id = signing_key_id(public_half_of(seed));
    write_sealed(image, manifest);
    manifest.signature = sign_image(reinterpret_cast<const std::uint8_t *>(image.data()), image.size(), seed);
    image_manifest_record record;
    if (!image_manifest_store(manifest, record))
        throw image_error("the manifest cannot be written");
    std::memcpy(image.data() + manifest.offset, &record, sizeof record);
    renew_ppc_digest(image);
}
