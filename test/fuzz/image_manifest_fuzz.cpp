// Images with manifests, whole or hostile. What is believed of one is what its bytes say, however they were cut.
//   decisions (1 byte): 1 the first manifest gets the digest that belongs to it, 2 the image is one of PPC with its
//   own digest | length of the pieces (1 byte) | image
#include <algorithm>
#include <cstring>
#include <vector>

#include "fuzz_input.h"
#include "image_manifest.h"

namespace
{

using bytes = std::vector<std::uint8_t>;

constexpr std::size_t DIGEST_AT = offsetof(image_manifest_record, digest);
constexpr std::size_t SIGNATURE_AT = offsetof(image_manifest_record, signature);
constexpr std::uint8_t MARK[] = {0x8f, 'B', 'I', 'O', 'S', 'm',  'a',  'n',
                                 'i',  'f', 'e', 's', 't', 0x0d, 0x0a, 0x1a};

// Offsets of all marks, told by the rules and not by the code.
std::vector<std::size_t> marks_in(const bytes &image)
{
    std::vector<std::size_t> marks;
    for (std::size_t at = 0; at + sizeof MARK <= image.size(); at += IMAGE_MANIFEST_BYTES) {
        if (std::memcmp(image.data() + at, MARK, sizeof MARK) == 0)
            marks.push_back(at);
    }
    return marks;
}

bool begins_as_ppc(const bytes &image)
{
    return image.size() >= PPC_DIGEST_OFFSET + sizeof(md5_digest) &&
           std::equal(PPC_IMAGE_BEGINNING.begin(), PPC_IMAGE_BEGINNING.end(), image.begin());
}

void clear(bytes &image, std::size_t at, std::size_t count)
{
    std::fill_n(image.begin() + static_cast<std::ptrdiff_t>(at), count, std::uint8_t{0});
}

// What is signed of an image with a whole manifest.
bytes signed_part(bytes image, std::size_t manifest_at)
{
    clear(image, manifest_at + SIGNATURE_AT, IMAGE_SIGNATURE_BYTES);
    if (begins_as_ppc(image))
        clear(image, PPC_DIGEST_OFFSET, sizeof(md5_digest));
    return image;
}

sha256_digest digest_of(const bytes &image)
{
    sha256 sum;
    sum.add(image.data(), image.size());
    return sum.digest();
}

sha256_digest manifest_digest_of(const bytes &image, std::size_t manifest_at)
{
    bytes covered = signed_part(image, manifest_at);
    clear(covered, manifest_at + DIGEST_AT, sizeof(sha256_digest));
    return digest_of(covered);
}

bool is_whole(const bytes &image, std::size_t manifest_at)
{
    return manifest_at + IMAGE_MANIFEST_BYTES <= image.size();
}

bytes image_of(bool is_sealed, std::span<const std::uint8_t> given)
{
    bytes image(given.begin(), given.end());
    const auto marks = marks_in(image);
    if (!is_sealed || marks.empty() || !is_whole(image, marks[0]))
        return image;
    image_manifest_record record;
    std::memcpy(&record, image.data() + marks[0], sizeof record);
    record.size_bytes.store(static_cast<std::uint32_t>(image.size()));
    std::memcpy(image.data() + marks[0], &record, sizeof record);
    const sha256_digest digest = manifest_digest_of(image, marks[0]);
    std::copy(digest.begin(), digest.end(), image.begin() + static_cast<std::ptrdiff_t>(marks[0] + DIGEST_AT));
    return image;
}

image_reading reading_of(const bytes &image, std::size_t piece, bytes &signed_out)
{
    image_reader reader([&](const std::uint8_t *some, std::size_t count) {
        signed_out.insert(signed_out.end(), some, some + count);
    });
    for (std::size_t at = 0; at < image.size(); at += piece)
        reader.add(image.data() + at, std::min(piece, image.size() - at));
    return reader.finish();
}

void expect_true(const bytes &image, const image_reading &reading, const bytes &signed_bytes)
{
    const auto marks = marks_in(image);
    const auto at = static_cast<std::size_t>(reading.manifest.offset);
    require(marks.size() == 1 && marks[0] == at && is_whole(image, at), "what is believed is the only one");
    require(reading.manifest.size_bytes == image.size(), "what is believed is of this size");
    require(reading.manifest.digest == manifest_digest_of(image, at), "what is believed has the image's digest");
    require(signed_bytes == signed_part(image, at), "what is signed is all but the signature");
    require(!begins_as_ppc(image), "what is believed is in no PPC image without a digest of its own");
    image_manifest_record record;
    require(image_manifest_store(reading.manifest, record) &&
                std::memcmp(&record, image.data() + at, sizeof record) == 0,
            "the facts are those of the record");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_input input(data, size);
    const bool is_sealed = input.byte() % 2 != 0;
    const std::size_t piece = input.byte() + std::size_t{1};
    const bytes image = image_of(is_sealed, input.rest());

    bytes signed_bytes;
    const image_reading reading = reading_of(image, piece, signed_bytes);
    bytes signed_at_once;
    const image_reading at_once = reading_of(image, image.size() + 1, signed_at_once);
    require(reading.state == at_once.state && reading.manifest == at_once.manifest, "pieces make no difference");
    require(signed_bytes == signed_at_once && signed_bytes.size() == image.size(), "all is signed");
    require(reading.sha256 == digest_of(image) && reading.size_bytes == image.size(), "the whole is counted");
    require((reading.state == image_manifest_state::none) == marks_in(image).empty(), "a mark is a manifest");
    if (reading.state == image_manifest_state::intact)
        expect_true(image, reading, signed_bytes);
    else
        require(reading.manifest == image_manifest(), "there are no facts of what is not believed");
    return 0;
}
