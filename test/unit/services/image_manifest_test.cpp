// Manifests in images, made here byte by byte.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include "flash_fixture.h"
#include "image_manifest.h"
#include "md5.h"
#include "sealed_image.h"

namespace
{

using state = image_manifest_state;

flash_bytes image_with_manifest(std::size_t image_bytes, std::size_t offset)
{
    flash_bytes image = random_bytes(image_bytes);
    put_record(image, offset, sample_manifest(image_bytes));
    return sealed(image, offset);
}

flash_bytes ppc_image()
{
    constexpr std::size_t OFFSET = 0x1000;
    flash_bytes image = random_bytes(PPC_DIGESTED_BYTES + 4096);
    std::copy(PPC_IMAGE_BEGINNING.begin(), PPC_IMAGE_BEGINNING.end(), image.begin());
    put_record(image, OFFSET, sample_manifest(image.size()));
    return sealed(image, OFFSET);
}

image_reading reading_of(const flash_bytes &image, image_reader::byte_sink sink = {})
{
    image_reader reader(std::move(sink));
    reader.add(image.data(), image.size());
    return reader.finish();
}

std::string problem_of(const flash_bytes &image)
{
    const image_reading reading = reading_of(image);
    EXPECT_EQ(reading.manifest, image_manifest()); // no fact of what cannot be believed
    return reading.state == state::damaged ? reading.problem : "not damaged";
}

// An open file with these contents.
unique_fd file_of(const flash_bytes &image)
{
    unique_fd file(::memfd_create("image", MFD_CLOEXEC));
    EXPECT_EQ(::write(file.get(), image.data(), image.size()), static_cast<ssize_t>(image.size()));
    return file;
}

} // namespace

TEST(ImageManifest, IsFoundWhereverItLies)
{
    for (const std::size_t offset : {0, 256, 0x10000, 0x1ff00}) {
        const flash_bytes image = image_with_manifest(0x20000, offset);
        const image_reading reading = reading_of(image);
        ASSERT_EQ(reading.state, state::intact) << reading.problem;
        image_manifest expected = sample_manifest(image.size());
        expected.offset = offset;
        expected.digest = reading.manifest.digest;
        EXPECT_EQ(reading.manifest, expected);
        EXPECT_EQ(reading.size_bytes, image.size());
        EXPECT_EQ(reading.sha256, digest_of(image));
    }
}

TEST(ImageManifest, IsTheSameHoweverTheImageIsCut)
{
    const flash_bytes image = image_with_manifest(4096 + 100, 1024);
    for (std::size_t first = 0; first <= image.size(); first += 7) {
        image_reader reader;
        reader.add(image.data(), first);
        reader.add(nullptr, 0);
        for (std::size_t at = first; at < image.size(); at += 100)
            reader.add(image.data() + at, std::min<std::size_t>(100, image.size() - at));
        const image_reading reading = reader.finish();
        EXPECT_EQ(reading.state, state::intact) << first;
        EXPECT_EQ(reading.sha256, digest_of(image)) << first;
    }
}

TEST(ImageManifest, IsNotThereInOtherImages)
{
    for (const std::size_t length : {0, 1, 255, 256, 257, 70000}) {
        const flash_bytes image = random_bytes(length);
        const image_reading reading = reading_of(image);
        EXPECT_EQ(reading.state, state::none) << length;
        EXPECT_EQ(reading.sha256, digest_of(image)) << length;
    }
    flash_bytes shifted = random_bytes(4096);
    put_record(shifted, 257, sample_manifest(shifted.size()));
    EXPECT_EQ(reading_of(shifted).state, state::none);
}

TEST(ImageManifest, HasTheBytesThatAreDocumented)
{
    image_manifest manifest = sample_manifest(0x100000);
    manifest.key_id = image_key_id{1, 2, 3, 4, 5, 6, 7, 8};
    manifest.digest.fill(0xdd);
    manifest.signature.fill(0x55);
    image_manifest_record record;
    ASSERT_TRUE(image_manifest_store(manifest, record));
    std::string expected("\x8f"
                         "BIOSmanifest\r\n\x1a"
                         "\0\0\0\1\0\x10\0\0\0\0\0\x1a\0\0\0\7v3.5.0(09/17/12)",
                         48);
    expected.resize(64);
    expected += "x86n-tarvik-a";
    expected.resize(96);
    expected += std::string("\0\0\0\2\0\xb7\0\xce", 8);
    expected.resize(152);
    expected += "\1\2\3\4\5\6\7\x8";
    expected += std::string(32, '\xdd') + std::string(64, '\x55');
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(&record), sizeof record), expected);
    image_manifest loaded;
    EXPECT_EQ(image_manifest_load(record, loaded), nullptr);
    EXPECT_EQ(loaded, manifest);
}

TEST(ImageManifest, AnyOtherByteMakesItDamaged)
{
    const std::size_t offset = 512;
    const flash_bytes image = image_with_manifest(1024, offset);
    for (std::size_t at = 0; at < image.size(); ++at) {
        flash_bytes changed = image;
        changed[at] ^= 1;
        const bool in_mark = at >= offset && at < offset + IMAGE_MARK_BYTES;
        EXPECT_EQ(reading_of(changed).state, in_mark ? state::none : state::damaged) << at;
    }
}

TEST(ImageManifest, AnImageOfAnotherLengthIsDamaged)
{
    flash_bytes image = image_with_manifest(4096, 1024);
    image.push_back(0xff);
    EXPECT_EQ(problem_of(image), "belongs to an image of another size");
    image.resize(4095);
    EXPECT_EQ(problem_of(image), "belongs to an image of another size");
    image.resize(1024 + 255);
    EXPECT_EQ(problem_of(image), "is cut short by the image's end");
    image.resize(1024 + 15);
    EXPECT_EQ(reading_of(image).state, state::none);
}

TEST(ImageManifest, TwoAreDamaged)
{
    flash_bytes image = image_with_manifest(4096, 1024);
    put_record(image, 3072, sample_manifest(image.size()));
    EXPECT_EQ(problem_of(image), "is not the only one");
    EXPECT_EQ(problem_of(sealed(image, 1024)), "is not the only one");
    std::memset(image.data() + 3072 + IMAGE_MARK_BYTES, 0, 240); // of the second there is the mark alone
    EXPECT_EQ(problem_of(sealed(image, 1024)), "is not the only one");
}

TEST(ImageManifest, NoFieldIsBelievedThatIsNotAsItShouldBe)
{
    const auto damaged = [](auto damage) {
        flash_bytes image = random_bytes(4096);
        image_manifest_record record;
        EXPECT_TRUE(image_manifest_store(sample_manifest(image.size()), record));
        damage(record);
        std::memcpy(image.data() + 1024, &record, sizeof record);
        image = sealed(image, 1024);
        return problem_of(image);
    };
    EXPECT_EQ(damaged([](auto &record) { record.form.store(2); }), "has a form that is not known");
    EXPECT_EQ(damaged([](auto &record) { record.version[0] = '\n'; }), "has a text that is not printable");
    EXPECT_EQ(damaged([](auto &record) { record.version[31] = 'x'; }), "has a text that is not printable");
    EXPECT_EQ(damaged([](auto &record) { record.family_name[0] = '\x9b'; }), "has a text that is not printable");
    EXPECT_EQ(damaged([](auto &record) { record.card_id_count.store(15); }), "has too many card ids");
    EXPECT_EQ(damaged([](auto &record) { record.card_id_count.store(UINT32_MAX); }), "has too many card ids");
    EXPECT_EQ(damaged([](auto &record) { record.card_id_count.store(1); }),
              "has contents where it has to be empty");
    EXPECT_EQ(damaged([](auto &record) { record.unused[23] = 1; }), "has contents where it has to be empty");
    EXPECT_EQ(damaged([](auto &record) { record.signature[0] = 1; }), "has a signature without a key");
}

TEST(ImageManifest, HoldsNoTextsThatDoNotFit)
{
    image_manifest_record record;
    image_manifest manifest = sample_manifest(4096);
    manifest.version.assign(32, 'v');
    EXPECT_TRUE(image_manifest_store(manifest, record));
    manifest.version.assign(33, 'v');
    EXPECT_FALSE(image_manifest_store(manifest, record));
    manifest.version = "3 5";
    EXPECT_FALSE(image_manifest_store(manifest, record));
    manifest = sample_manifest(4096);
    manifest.card_ids.assign(15, 1);
    EXPECT_FALSE(image_manifest_store(manifest, record));
}

TEST(ImageManifest, NamesTheCardsThatTheImageIsFor)
{
    image_manifest manifest = sample_manifest(4096);
    EXPECT_TRUE(manifest.is_for_card_id(183));
    EXPECT_FALSE(manifest.is_for_card_id(90));
    EXPECT_FALSE(manifest.is_for_card_id(0x100b7)); // not its low 16 bits alone
    manifest.card_ids.clear();
    EXPECT_TRUE(manifest.is_for_card_id(90));
}

TEST(ImageManifest, ASignatureIsAboutAllBytesButItself)
{
    const std::size_t offset = 1024;
    flash_bytes image = image_with_manifest(4096 + 17, offset);
    std::memset(image.data() + offset + offsetof(image_manifest_record, key_id), 9, IMAGE_KEY_ID_BYTES);
    std::memset(image.data() + offset + SIGNATURE_AT, 5, IMAGE_SIGNATURE_BYTES);
    image = sealed(image, offset);
    flash_bytes signed_bytes;
    const image_reading reading = reading_of(image, [&](const std::uint8_t *bytes, std::size_t count) {
        signed_bytes.insert(signed_bytes.end(), bytes, bytes + count);
    });
    ASSERT_EQ(reading.state, state::intact) << reading.problem;
    EXPECT_EQ(reading.manifest.key_id->at(0), 9);
    EXPECT_EQ(reading.manifest.signature[63], 5);
    flash_bytes expected = image;
    clear(expected, offset + SIGNATURE_AT, IMAGE_SIGNATURE_BYTES);
    EXPECT_EQ(signed_bytes, expected);
}

TEST(ImageManifest, APpcImagesOwnDigestCountsToo)
{
    const flash_bytes image = ppc_image();
    ASSERT_EQ(reading_of(image).state, state::intact) << reading_of(image).problem;
    EXPECT_EQ(reading_of(image).sha256, digest_of(image));
    for (const std::size_t at : {PPC_DIGEST_OFFSET, PPC_DIGEST_OFFSET + 15}) {
        flash_bytes changed = image;
        changed[at] ^= 1;
        EXPECT_EQ(problem_of(changed), "is in a PPC image whose own digest is wrong");
    }
    flash_bytes changed = image;
    changed[20] ^= 1;
    EXPECT_EQ(problem_of(changed), "does not have the digest of the image");
}

TEST(ImageManifest, APpcImageWithoutOneIsNotJudged)
{
    flash_bytes image = random_bytes(PPC_DIGESTED_BYTES);
    std::copy(PPC_IMAGE_BEGINNING.begin(), PPC_IMAGE_BEGINNING.end(), image.begin());
    EXPECT_EQ(reading_of(image).state, state::none);
    EXPECT_EQ(reading_of(image).sha256, digest_of(image));
}

TEST(ImageManifest, IsReadFromAFile)
{
    const flash_bytes image = image_with_manifest(300'000, 256);
    const unique_fd file = file_of(image);
    image_reading reading;
    ASSERT_TRUE(read_image(file.get(), reading));
    EXPECT_EQ(reading.state, state::intact) << reading.problem;
    EXPECT_EQ(reading.sha256, digest_of(image));
}

TEST(ImageManifest, OfATooLargeFileIsNotLookedFor)
{
    const unique_fd file(::memfd_create("image", MFD_CLOEXEC));
    image_reading reading;
    ASSERT_EQ(::ftruncate(file.get(), static_cast<off_t>(IMAGE_BYTES_MAX)), 0);
    EXPECT_TRUE(read_image(file.get(), reading));
    ASSERT_EQ(::ftruncate(file.get(), static_cast<off_t>(IMAGE_BYTES_MAX + 1)), 0);
    EXPECT_FALSE(read_image(file.get(), reading));
    EXPECT_EQ(errno, EFBIG);
    EXPECT_FALSE(read_image(-1, reading));
    EXPECT_EQ(errno, EBADF);
}

TEST(Md5, HasThePublishedValues)
{
    const auto text_of = [](const std::string &message) {
        md5 sum;
        for (const char byte : message)
            sum.add(&byte, 1);
        std::string text;
        for (const std::uint8_t byte : sum.digest()) {
            char digits[3];
            std::snprintf(digits, sizeof digits, "%02x", byte);
            text += digits;
        }
        return text;
    };
    EXPECT_EQ(text_of(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(text_of("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(text_of("12345678901234567890123456789012345678901234567890123456789012345678901234567890"),
              "57edf4a22be3c955ac49da2e2107b67a");
}
