// What an agent says of the signature of an image in a file of its card.
#include <gtest/gtest.h>

#include <sodium.h>
#include <sys/stat.h>

#include "agent_requests.h"
#include "card_agent_process.h"
#include "image_signature.h"
#include "image_verification.h"
#include "sealed_image.h"
#include "trusted_keys.h"
#include "wire_bytes.h"

using namespace wire;

namespace
{

namespace fs = std::filesystem;

constexpr std::uint32_t VERIFY = 4850;
constexpr std::size_t MANIFEST_AT = 0x8000;

class ImageCheck : public chassis_flash_fixture
{
protected:
    void SetUp() override
    {
        chassis_flash_fixture::SetUp();
        trust("maker", public_half_of(maker));
    }

    std::string put(const std::string &name, const std::string &text) const
    {
        const fs::path path = dir + "/slots/3/" + name;
        fs::create_directories(path.parent_path());
        ::chmod(path.parent_path().c_str(), 0755);
        std::ofstream(path) << text;
        ::chmod(path.c_str(), 0644);
        return path;
    }
    void trust(const std::string &name, const signing_key &key) const
    {
        put("keys/" + name + ".pub", signing_key_format(key, PUBLIC_KEY_KIND));
    }

    // Signed by the definition: Ed25519ph over the image with zeros in the place of the signature.
    static flash_bytes signed_image(const signing_key &seed, image_manifest manifest = sample_manifest(100'000))
    {
        flash_bytes image = random_bytes(100'000);
        manifest.key_id = signing_key_id(public_half_of(seed));
        put_record(image, MANIFEST_AT, manifest);
        image = sealed(image, MANIFEST_AT);

        signing_key public_half;
        unsigned char secret_half[crypto_sign_SECRETKEYBYTES];
        crypto_sign_seed_keypair(public_half.data(), secret_half, seed.data());
        crypto_sign_state state;
        crypto_sign_init(&state);
        crypto_sign_update(&state, image.data(), image.size());
        crypto_sign_final_create(&state, image.data() + MANIFEST_AT + SIGNATURE_AT, nullptr, secret_half);
        return image;
    }

    static bytes body_of(const std::string &path) { return text_field(path, 256); }
    static std::uint32_t status_of_path(const std::string &path)
    {
        const auto given = answer_to(VERIFY, body_of(path));
        EXPECT_TRUE(given);
        EXPECT_TRUE(given->status() == AGENT_OK || given->payload().empty());
        return given->status();
    }
    std::uint32_t status_of(const flash_bytes &image) const { return status_of_path(file_of("image", image)); }

    const signing_key maker = new_signing_seed();
};

} // namespace

TEST_F(ImageCheck, OfAGoodSignatureTellsKeyAndDigest)
{
    const flash_bytes image = signed_image(maker);
    const auto given = answer_to(VERIFY, body_of(file_of("image", image)));
    ASSERT_TRUE(given);
    EXPECT_EQ(given->status(), AGENT_OK);
    const sha256_digest digest = digest_of(image);
    const image_key_id id = signing_key_id(public_half_of(maker));
    EXPECT_EQ(given->payload(), words({0, 100'000}) + bytes(digest.begin(), digest.end()) +
                                    bytes(id.begin(), id.end()) + words({26, 7}));
}

TEST_F(ImageCheck, SeveralKeysCount)
{
    const signing_key other = new_signing_seed();
    EXPECT_EQ(status_of(signed_image(other)), AGENT_ERR_KEY_UNKNOWN);
    trust("other", public_half_of(other));
    EXPECT_EQ(status_of(signed_image(other)), AGENT_OK);
    EXPECT_EQ(status_of(signed_image(maker)), AGENT_OK);
}

TEST_F(ImageCheck, ARevokedKeyDoesNotCount)
{
    put("keys/revoked", signing_key_id_text(signing_key_id(public_half_of(maker))) + "\n");
    EXPECT_EQ(status_of(signed_image(maker)), AGENT_ERR_KEY_REVOKED);
    fs::remove(dir + "/slots/3/keys/maker.pub"); // and stays revoked
    EXPECT_EQ(status_of(signed_image(maker)), AGENT_ERR_KEY_REVOKED);
}

TEST_F(ImageCheck, AnImageWithoutASignatureHasNone)
{
    flash_bytes image = random_bytes(100'000);
    EXPECT_EQ(status_of(image), AGENT_ERR_NOT_SIGNED);
    EXPECT_EQ(status_of({}), AGENT_ERR_NOT_SIGNED);
    put_record(image, MANIFEST_AT, sample_manifest(image.size()));
    EXPECT_EQ(status_of(sealed(image, MANIFEST_AT)), AGENT_ERR_NOT_SIGNED);
}

TEST_F(ImageCheck, NoBitMayBeAnotherOne)
{
    const flash_bytes image = signed_image(maker);
    for (unsigned round = 0; round < 60; ++round) {
        // The first rounds are about the manifest, behind its mark.
        const std::size_t at =
            round < 30 ? MANIFEST_AT + 16 + 8 * round : static_cast<std::size_t>(test_random()() % image.size());
        flash_bytes changed = image;
        changed[at] = static_cast<std::uint8_t>(changed[at] ^ 1U << test_random()() % 8);
        const std::uint32_t status = status_of(changed);
        const std::size_t in_manifest = at - MANIFEST_AT;
        if (at >= MANIFEST_AT && in_manifest >= SIGNATURE_AT && in_manifest < IMAGE_MANIFEST_BYTES)
            EXPECT_EQ(status, AGENT_ERR_SIGNATURE) << at;
        else if (at >= MANIFEST_AT && in_manifest < IMAGE_MARK_BYTES)
            EXPECT_EQ(status, AGENT_ERR_NOT_SIGNED) << at;
        else
            EXPECT_EQ(status, AGENT_ERR_MANIFEST) << at;
    }
}

TEST_F(ImageCheck, WhoMendsTheDigestHasNotMendedTheSignature)
{
    flash_bytes image = signed_image(maker);
    image[0] ^= 1;
    EXPECT_EQ(status_of(sealed(image, MANIFEST_AT)), AGENT_ERR_SIGNATURE);
    image = signed_image(maker);
    image[MANIFEST_AT + 31] = 8; // the security version
    EXPECT_EQ(status_of(sealed(image, MANIFEST_AT)), AGENT_ERR_SIGNATURE);
    image = signed_image(maker);
    image.push_back(0xff);
    EXPECT_EQ(status_of(sealed(image, MANIFEST_AT)), AGENT_ERR_MANIFEST);
}

TEST_F(ImageCheck, SignsWhatItChecks)
{
    flash_bytes image = signed_image(maker);
    std::memset(image.data() + MANIFEST_AT + SIGNATURE_AT, 0, IMAGE_SIGNATURE_BYTES);
    const image_signature signature = sign_image(image.data(), image.size(), maker);
    std::memcpy(image.data() + MANIFEST_AT + SIGNATURE_AT, signature.data(), signature.size());
    EXPECT_EQ(status_of(image), AGENT_OK);
}

TEST_F(ImageCheck, OnlyRegularFilesUnderTheirOwnNameAreRead)
{
    const std::string path = file_of("image", signed_image(maker));
    EXPECT_EQ(status_of_path(path), AGENT_OK);
    fs::create_symlink(path, dir + "/link");
    EXPECT_EQ(status_of_path(dir + "/link"), AGENT_ERR_IMAGE_FILE);
    ASSERT_EQ(::mkfifo((dir + "/pipe").c_str(), 0600), 0);
    EXPECT_EQ(status_of_path(dir + "/pipe"), AGENT_ERR_IMAGE_FILE);
    EXPECT_EQ(status_of_path(dir), AGENT_ERR_IMAGE_FILE);
    EXPECT_EQ(status_of_path("/dev/zero"), AGENT_ERR_IMAGE_FILE);
    EXPECT_EQ(status_of_path(dir + "/none"), AGENT_ERR_IMAGE_FILE);
    EXPECT_EQ(status_of_path("image"), AGENT_ERR_REQUEST);
    EXPECT_EQ(status_of_path(""), AGENT_ERR_REQUEST);
    EXPECT_EQ(answer_to(VERIFY, bytes(256, '/'))->status(), AGENT_ERR_REQUEST); // not terminated
    EXPECT_EQ(answer_to(VERIFY, text_field(path, 255))->status(), AGENT_ERR_REQUEST);
    EXPECT_EQ(answer_to(VERIFY, text_field(path, 257))->status(), AGENT_ERR_REQUEST);
    fs::resize_file(path, IMAGE_BYTES_MAX + 1);
    EXPECT_EQ(status_of_path(path), AGENT_ERR_IMAGE_SIZE);
}

TEST_F(ImageCheck, KeysThatOthersMayHaveWrittenDoNotCount)
{
    const flash_bytes image = signed_image(maker);
    EXPECT_EQ(status_of(image), AGENT_OK);
    ::chmod((dir + "/slots/3/keys/maker.pub").c_str(), 0666);
    EXPECT_EQ(status_of(image), AGENT_ERR_KEYS);
    fs::remove_all(dir + "/slots/3/keys");
    EXPECT_EQ(status_of(image), AGENT_ERR_KEY_UNKNOWN);
    put("keys/revoked", "lost\n");
    EXPECT_EQ(status_of(image), AGENT_ERR_KEYS);
}

// A process without the library, as one that programs.
TEST_F(ImageCheck, IsMadeForProcessesOfTheCardByItsAgent)
{
    const flash_bytes image = signed_image(maker);
    const std::string path = file_of("image", image);
    put("../../inventory/3/kind", "1\n"); // a supervisor has the node of one
    EXPECT_EQ(verify_image(path).status, AGENT_ERR_UNREADABLE) << "no agent runs";
    const card_agent_process agent(dir, TEST_SLOT);
    const image_verification good = verify_image(path);
    EXPECT_EQ(good.status, AGENT_OK);
    EXPECT_EQ(good.sha256, digest_of(image));
    EXPECT_EQ(good.family, 26u);
    EXPECT_EQ(good.security_version, 7u);
    EXPECT_EQ(verify_image(dir + "/none").status, AGENT_ERR_IMAGE_FILE);
    EXPECT_EQ(verify_image("/" + std::string(AGENT_PATH_BYTES, 'x')).status, AGENT_ERR_UNREADABLE);
    EXPECT_EQ(verify_image(file_of("image", random_bytes(100))).status, AGENT_ERR_NOT_SIGNED);
}
