// Images with manifests, made as the head of image_manifest.h defines them and not by the code that is tested.
#pragma once

#include <algorithm>
#include <cstring>

#include "flash_fixture.h"
#include "image_manifest.h"
#include "md5.h"

inline constexpr std::size_t DIGEST_AT = offsetof(image_manifest_record, digest);
inline constexpr std::size_t SIGNATURE_AT = offsetof(image_manifest_record, signature);

inline image_manifest sample_manifest(std::size_t image_bytes)
{
    image_manifest manifest;
    manifest.size_bytes = static_cast<std::uint32_t>(image_bytes);
    manifest.family = 26;
    manifest.security_version = 7;
    manifest.version = "v3.5.0(09/17/12)";
    manifest.family_name = "x86n-tarvik-a";
    manifest.card_ids = {183, 206};
    return manifest;
}

inline void put_record(flash_bytes &image, std::size_t offset, const image_manifest &manifest)
{
    image_manifest_record record;
    ASSERT_TRUE(image_manifest_store(manifest, record));
    std::memcpy(image.data() + offset, &record, sizeof record);
}

inline sha256_digest digest_of(const flash_bytes &bytes)
{
    sha256 sum;
    sum.add(bytes.data(), bytes.size());
    return sum.digest();
}

inline void clear(flash_bytes &image, std::size_t offset, std::size_t count)
{
    std::memset(image.data() + offset, 0, count);
}

// The image with its digest put in place, as the head of image_manifest.h defines it.
inline flash_bytes sealed(flash_bytes image, std::size_t offset)
{
    flash_bytes covered = image;
    clear(covered, offset + DIGEST_AT, sizeof(sha256_digest));
    clear(covered, offset + SIGNATURE_AT, IMAGE_SIGNATURE_BYTES);
    const bool is_ppc = std::equal(PPC_IMAGE_BEGINNING.begin(), PPC_IMAGE_BEGINNING.end(), image.begin());
    if (is_ppc)
        clear(covered, PPC_DIGEST_OFFSET, sizeof(md5_digest));
    const sha256_digest digest = digest_of(covered);
    std::memcpy(image.data() + offset + DIGEST_AT, digest.data(), digest.size());
    if (is_ppc) {
        clear(image, PPC_DIGEST_OFFSET, sizeof(md5_digest));
        md5 inner;
        inner.add(image.data(), PPC_DIGESTED_BYTES);
        const md5_digest stored = inner.digest();
        std::memcpy(image.data() + PPC_DIGEST_OFFSET, stored.data(), stored.size());
    }
    return image;
}
