// Manifests and signatures of images: bios_image as built.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <sys/stat.h>

#include "card_families.h"
#include "image_manifest.h"
#include "image_tool_test.h"

namespace
{

namespace files = std::filesystem;

constexpr std::size_t PPC_DIGEST_BYTES = 16;

image_reading reading_of(const std::string &image)
{
    image_reader reader;
    reader.add(image.data(), image.size());
    return reader.finish();
}

class ImageSigning : public image_tool_test
{
protected:
    ImageSigning() : image_tool_test("image-signing") {}

    int run(const std::string &arguments) const { return image_tool_test::run("bios_image " + arguments); }
    void succeed(const std::string &arguments) { EXPECT_EQ(run(arguments), 0) << arguments << ": " << errors(); }
    // Fails with this text, and leaves no output.
    void expect_refusal(const std::string &arguments, const std::string &text)
    {
        EXPECT_EQ(run(arguments), 1) << arguments;
        EXPECT_EQ(errors(), "bios_image: " + text + "\n") << arguments;
        EXPECT_FALSE(files::exists(path("refused"))) << arguments;
    }
    void build(const std::string &options = "--family x86n --security-version 3")
    {
        succeed("build --output image --size 64K --version 3.5 --date 09/17/12 " + options);
    }
    // The digest that the system's tool calculates of a PPC image, put into it.
    std::string with_ppc_digest(std::string image) const
    {
        image.replace(PPC_DIGEST_OFFSET, PPC_DIGEST_BYTES, PPC_DIGEST_BYTES, '\0');
        write_file(path("digested"), image.substr(0, PPC_DIGESTED_BYTES));
        FILE *tool = ::popen(("/usr/bin/md5sum " + path("digested")).c_str(), "r");
        for (std::size_t at = 0; at < PPC_DIGEST_BYTES; ++at) {
            unsigned byte = 0;
            EXPECT_EQ(std::fscanf(tool, "%2x", &byte), 1);
            image[PPC_DIGEST_OFFSET + at] = static_cast<char>(byte);
        }
        ::pclose(tool);
        return image;
    }
    std::string ppc_image() const
    {
        std::string image(PPC_DIGESTED_BYTES + 4096, '\xff');
        image.replace(0, 64, 64, 'h');
        image.replace(0, 4, "\x27\x05\x19\x56");
        image.replace(PPC_DIGESTED_BYTES, 4096, 4096, 'f'); // no room where the digest does not count it
        return with_ppc_digest(image);
    }
    mode_t mode_of(const std::string &name) const
    {
        struct stat status {
        };
        EXPECT_EQ(::stat(path(name).c_str(), &status), 0);
        return status.st_mode & 07777;
    }
};

} // namespace

TEST_F(ImageSigning, BuildPutsAManifestIntoTheErasedSpaceAlone)
{
    build("");
    const std::string plain = content_of(path("image"));
    EXPECT_EQ(reading_of(plain).state, image_manifest_state::none);
    build();
    const std::string image = content_of(path("image"));
    const image_reading reading = reading_of(image);
    ASSERT_EQ(reading.state, image_manifest_state::intact) << reading.problem;
    const image_manifest &manifest = reading.manifest;
    EXPECT_EQ(manifest.family, 17u);
    EXPECT_EQ(manifest.family_name, "x86n");
    EXPECT_EQ(manifest.version, "v3.5.0(09/17/12)");
    EXPECT_EQ(manifest.security_version, 3u);
    EXPECT_EQ(manifest.card_ids, (std::vector<std::uint16_t>{90, 93, 94, 95, 96, 97}));
    EXPECT_FALSE(manifest.key_id);
    std::string without = image;
    without.replace(static_cast<std::size_t>(manifest.offset), IMAGE_MANIFEST_BYTES, IMAGE_MANIFEST_BYTES, '\xff');
    EXPECT_EQ(without, plain);
    build();
    EXPECT_EQ(content_of(path("image")), image); // the same input, the same image
}

TEST_F(ImageSigning, BuildKnowsEveryFamily)
{
    std::vector<std::uint32_t> families;
    for (const card_family &family : CARD_FAMILIES) {
        build(std::string("--family ") + family.name);
        const image_manifest manifest = reading_of(content_of(path("image"))).manifest;
        EXPECT_EQ(manifest.family_name, family.name);
        EXPECT_FALSE(manifest.card_ids.empty());
        EXPECT_TRUE(manifest.is_for_card_id(family.card_id)) << family.name;
        EXPECT_EQ(manifest.security_version, 0u);
        families.push_back(manifest.family);
    }
    EXPECT_EQ(families, (std::vector<std::uint32_t>{17, 19, 21, 23, 26, 34, 28, 29, 32, 33, 30, 31, 35, 36, 37}));
}

TEST_F(ImageSigning, BuildRefusesWhatCannotBe)
{
    const std::string build = "build --output refused --size 4K --version 3.5 --date 09/17/12 ";
    expect_refusal(build + "--family x86", "unknown family: x86; chassis families lists them");
    expect_refusal(build + "--family ''", "unknown family: ; chassis families lists them");
    EXPECT_EQ(run(build + "--security-version 3"), 64);
    EXPECT_EQ(run(build + "--family x86n --security-version 4294967296"), 64);
    EXPECT_EQ(run(build + "--family x86n --security-version -1"), 64);
    EXPECT_FALSE(files::exists(path("refused")));
    write_file(path("payload"), std::string(4096 - 256 - 255, 'x'));
    expect_refusal(build + "--family x86n --payload payload",
                   "the image has no 256 erased bytes at a multiple of 256 for the manifest");
    write_file(path("payload"), std::string(4096 - 512, 'x'));
    EXPECT_EQ(run("build --output image --size 4K --version 3.5 --date 09/17/12 --family x86n --payload payload"),
              0);
    files::rename(path("image"), path("payload"));
    expect_refusal(
        "build --output refused --size 16K --version 3.5 --date 09/17/12 --family x86n --payload payload",
        "the image has a manifest already");
}

TEST_F(ImageSigning, ShowTellsWhatTheManifestSays)
{
    build("--family x86n-tarvik-c-pfcr-ivb --security-version 7");
    succeed("show image");
    EXPECT_EQ(output(), "version  v3.5.0(09/17/12)\nsize     65536 bytes\n"
                        "family   x86n-tarvik-c-pfcr-ivb (33): cards 182\nsecurity 7\nsigned   no\n");
    std::string image = content_of(path("image"));
    image[200] = 0;
    write_file(path("image"), image);
    EXPECT_EQ(run("show image"), 1);
    EXPECT_EQ(errors(), "bios_image: image: the manifest does not have the digest of the image\n");
}

TEST_F(ImageSigning, ManifestIsPutIntoAFinishedImage)
{
    build("");
    succeed("manifest --image image --output labelled --family x86n --security-version 3");
    build();
    EXPECT_EQ(content_of(path("labelled")), content_of(path("image")));
    expect_refusal("manifest --image image --output refused --family x86n",
                   "image: the image has a manifest already");
    write_file(path("image"), std::string(4096, '\xff'));
    expect_refusal("manifest --image image --output refused --family x86n",
                   "image: the image has no x86n header to take the version from; give it by --version");
    expect_refusal("manifest --image image --output refused --family x86n --version 'two words'",
                   "image: the manifest has no room for version two words and 6 card ids");
}

TEST_F(ImageSigning, APpcImageGetsItsOwnDigestAnew)
{
    const std::string image = ppc_image();
    write_file(path("ppc"), image);
    succeed("manifest --image ppc --output labelled --family x86n --version v1.2.3");
    const std::string labelled = content_of(path("labelled"));
    EXPECT_NE(labelled.substr(PPC_DIGEST_OFFSET, PPC_DIGEST_BYTES),
              image.substr(PPC_DIGEST_OFFSET, PPC_DIGEST_BYTES));
    EXPECT_EQ(labelled, with_ppc_digest(labelled)); // it is what the system's tool says
    ASSERT_EQ(reading_of(labelled).state, image_manifest_state::intact) << reading_of(labelled).problem;
    succeed("show labelled");
    EXPECT_EQ(output().substr(0, 16), "version  v1.2.3\n");

    succeed("keygen --secret maker.key --public maker.pub");
    succeed("sign --key maker.key --image labelled --output signed");
    EXPECT_EQ(content_of(path("signed")), with_ppc_digest(content_of(path("signed"))));
    succeed("verify --key maker.pub --image signed");

    std::string wrong = image;
    wrong[PPC_DIGEST_OFFSET] = static_cast<char>(wrong[PPC_DIGEST_OFFSET] ^ 1);
    write_file(path("ppc"), wrong);
    expect_refusal("manifest --image ppc --output refused --family x86n --version v1.2.3",
                   "ppc: the image looks like a PPC image, whose digest is wrong");
}

TEST_F(ImageSigning, KeygenMakesNewFilesAndTheSecretOneForItsOwner)
{
    const mode_t before = ::umask(0);
    succeed("keygen --secret maker.key --public maker.pub");
    ::umask(before);
    EXPECT_EQ(mode_of("maker.key"), 0600u);
    EXPECT_EQ(mode_of("maker.pub"), 0644u);
    const std::string secret = content_of(path("maker.key"));
    EXPECT_EQ(secret.substr(0, 15), "ed25519-secret ");
    EXPECT_EQ(content_of(path("maker.pub")).substr(0, 15), "ed25519-public ");
    EXPECT_EQ(output().substr(0, 9), "key      ");
    EXPECT_EQ(output().size(), 9u + 16 + 1);

    expect_refusal("keygen --secret maker.key --public refused", "maker.key: File exists");
    expect_refusal("keygen --secret refused --public maker.pub", "maker.pub: File exists");
    EXPECT_EQ(content_of(path("maker.key")), secret);
    files::create_symlink("refused", path("link"));
    expect_refusal("keygen --secret link --public other.pub", "link: File exists");
    succeed("keygen --secret other.key --public other.pub");
    EXPECT_NE(content_of(path("other.key")), secret);
}

TEST_F(ImageSigning, VerifyKnowsWhoHasSigned)
{
    build();
    succeed("keygen --secret maker.key --public maker.pub");
    const std::string maker = output().substr(9, 16);
    succeed("keygen --secret other.key --public other.pub");
    succeed("sign --key maker.key --image image --output signed");
    succeed("verify --key maker.pub --image signed");
    EXPECT_EQ(output(), "signed   by key " + maker + "\n");
    succeed("verify --key other.pub --key maker.pub --image signed");
    succeed("show signed");
    EXPECT_NE(output().find("signed   by key " + maker + "\n"), std::string::npos);

    expect_refusal("verify --key other.pub --image signed",
                   "signed: was signed by a key that was not given: " + maker);
    expect_refusal("verify --key maker.pub --image image", "image: is not signed");
    write_file(path("revoked"), "# lost in a train\n" + maker + "\n");
    expect_refusal("verify --key maker.pub --revoked revoked --image signed",
                   "signed: was signed by a key that was revoked: " + maker);
    write_file(path("revoked"), "maker\n");
    expect_refusal("verify --key maker.pub --revoked revoked --image signed",
                   "revoked: line 1: not the id of a key: maker");
    expect_refusal("verify --key maker.pub --image absent", "absent: No such file or directory");
    EXPECT_EQ(run("verify --image signed"), 64);

    succeed("sign --key other.key --image signed --output signed"); // in the place of the first signature
    succeed("verify --key other.pub --image signed");
}

TEST_F(ImageSigning, VerifyFindsWhatWasChanged)
{
    build();
    succeed("keygen --secret maker.key --public maker.pub");
    succeed("sign --key maker.key --image image --output signed");
    const std::string image = content_of(path("signed"));
    const auto offset = static_cast<std::size_t>(reading_of(image).manifest.offset);
    const auto change = [&](std::size_t at) {
        std::string changed = image;
        changed[at] = static_cast<char>(changed[at] ^ 1);
        write_file(path("signed"), changed);
    };
    change(0);
    expect_refusal("verify --key maker.pub --image signed",
                   "signed: the manifest does not have the digest of the image");
    change(offset + 255);
    expect_refusal("verify --key maker.pub --image signed", "signed: the signature is not that of the image");
    change(offset);
    expect_refusal("verify --key maker.pub --image signed", "signed: is not signed");
}

TEST_F(ImageSigning, SignWantsAManifestAndASecretKeyThatIsOne)
{
    build("");
    succeed("keygen --secret maker.key --public maker.pub");
    const std::string sign = "sign --image image --output refused --key ";
    expect_refusal(sign + "maker.key", "image: the image has no manifest; bios_image manifest puts one into it");
    build();
    expect_refusal(sign + "maker.pub",
                   "maker.pub: other users may read the key; take that away with: chmod go-rwx");
    ::chmod(path("maker.pub").c_str(), 0600);
    expect_refusal(sign + "maker.pub", "maker.pub: is not a key file of kind ed25519-secret");
    ::chmod(path("maker.key").c_str(), 0640);
    expect_refusal(sign + "maker.key",
                   "maker.key: other users may read the key; take that away with: chmod go-rwx");
    ::chmod(path("maker.key").c_str(), 0600);
    std::string image = content_of(path("image"));
    image[300] = 0;
    write_file(path("image"), image);
    expect_refusal(sign + "maker.key", "image: the manifest does not have the digest of the image");
    EXPECT_EQ(run("verify --key maker.key --image image"), 1);
}
