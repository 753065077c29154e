// Signed images, made, signed and delivered as an operator does it: what an agent says of those that lie on its
// card, and which of them are programmed.
#include <algorithm>
#include <filesystem>
#include <sstream>

#include "agent_requester.h"
#include "bios_refusals.h"
#include "chassis_fixture.h"
#include "daemon_node.h"
#include "requester.h"
#include "sha256.h"
#include "test_images.h"
#include "text_field.h"

namespace
{

namespace files = std::filesystem;

constexpr const char *IMAGE = "signed.bin";
constexpr unsigned IMAGE_KIB = 1024; // the smallest that can be built

class AgentSignatures : public chassis_test
{
protected:
    void SetUp() override
    {
        insert({.slot = 1, .in_flash = &in_flash(), .flash_kib = IMAGE_KIB});
        insert({.slot = 2, .role = "standby"});
        up();
        make_key("maker");
        trust(1, "maker");
        run({"build", "--output", IMAGE, "--size", "1", "--version", "3.5", "--date", "09/17/12", "--family",
             "x86n", "--security-version", "7"});
    }

    static const test_image &in_flash() { return image("1.2", IMAGE_KIB); }
    // bios_image, among the test's own files.
    std::string run(const std::vector<std::string> &words) const
    {
        std::vector<std::string> command = {"env", "-C", workspace(), BIOS_IMAGE_PROGRAM};
        command.insert(command.end(), words.begin(), words.end());
        const finished_program done = run_program(command);
        EXPECT_EQ(done.exit_code, 0) << done.output << done.errors;
        return done.output;
    }
    void make_key(const std::string &name) const
    {
        run({"keygen", "--secret", name + ".key", "--public", name + ".pub"});
    }
    void sign(const std::string &key) const
    {
        run({"sign", "--key", key + ".key", "--image", IMAGE, "--output", IMAGE});
    }
    void trust(unsigned slot, const std::string &key) const
    {
        files::create_directories(slot_file(slot, "keys"));
        files::copy(workspace() + "/" + key + ".pub", slot_file(slot, "keys/" + key + ".pub"));
    }
    // The image as it is now, on the card's boot flash.
    std::string delivered(unsigned slot = 1)
    {
        const std::string bytes = file_content(workspace() + "/" + IMAGE);
        write_file(on_bootflash(slot, IMAGE), bytes);
        return bytes;
    }
    static agent_reply verify(unsigned slot, const std::string &path = std::string("/bootflash/") + IMAGE)
    {
        agent_verify_req_t body{};
        store_text(body.path, path.c_str());
        const std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t *>(&body), sizeof body);
        return agent_reply_to(daemon_node(slot, true), AGENT_OPC_VERIFY_IMAGE, bytes, 30)
            .value_or(agent_reply{~0U});
    }
};

} // namespace

TEST_F(AgentSignatures, AGoodOneIsToldWithKeyAndDigest)
{
    sign("maker");
    const std::string image = delivered();
    const agent_reply reply = verify(1);
    ASSERT_EQ(reply.status, AGENT_OK);
    agent_verified_t told;
    ASSERT_EQ(reply.payload.size(), sizeof told);
    std::copy_n(reply.payload.begin(), sizeof told, reinterpret_cast<std::uint8_t *>(&told));
    sha256 sum;
    sum.add(image.data(), image.size());
    EXPECT_TRUE(std::ranges::equal(told.sha256, sum.digest()));
    EXPECT_EQ(told.size_bytes.load(), image.size());
    EXPECT_EQ(told.family.load(), 17u);
    EXPECT_EQ(told.security_version.load(), 7u);
    std::string key;
    for (const std::uint8_t byte : told.key_id) {
        char digits[3];
        (void)std::snprintf(digits, sizeof digits, "%02x", byte);
        key += digits;
    }
    EXPECT_EQ(run({"verify", "--key", "maker.pub", "--image", IMAGE}), "signed   by key " + key + "\n");
}

TEST_F(AgentSignatures, EachCardHasItsOwnKeys)
{
    sign("maker");
    delivered(1);
    delivered(2);
    EXPECT_EQ(verify(1).status, AGENT_OK);
    EXPECT_EQ(verify(2).status, AGENT_ERR_KEY_UNKNOWN);
    trust(2, "maker");
    EXPECT_EQ(verify(2).status, AGENT_OK);
}

TEST_F(AgentSignatures, OneKeyFollowsAnotherAndIsRevoked)
{
    make_key("next");
    sign("next");
    delivered();
    EXPECT_EQ(verify(1).status, AGENT_ERR_KEY_UNKNOWN);
    trust(1, "next");
    EXPECT_EQ(verify(1).status, AGENT_OK);
    const std::string id =
        run({"verify", "--key", "next.pub", "--image", IMAGE}).substr(std::string("signed   by key ").size());
    write_file(slot_file(1, "keys/revoked"), id);
    EXPECT_EQ(verify(1).status, AGENT_ERR_KEY_REVOKED);
    sign("maker");
    delivered();
    EXPECT_EQ(verify(1).status, AGENT_OK);
}

TEST_F(AgentSignatures, WhatIsWrongIsToldApart)
{
    delivered();
    EXPECT_EQ(verify(1).status, AGENT_ERR_NOT_SIGNED);
    sign("maker");
    std::string image = delivered();
    image[5000] ^= 1;
    write_file(on_bootflash(1, IMAGE), image);
    EXPECT_EQ(verify(1).status, AGENT_ERR_MANIFEST);
    write_file(on_bootflash(1, IMAGE), new_image().bytes);
    EXPECT_EQ(verify(1).status, AGENT_ERR_NOT_SIGNED);
    files::remove(on_bootflash(1, IMAGE));
    EXPECT_EQ(verify(1).status, AGENT_ERR_IMAGE_FILE);
    EXPECT_EQ(verify(1, "signed.bin").status, AGENT_ERR_REQUEST);
    files::permissions(slot_file(1, "keys/maker.pub"), files::perms(0666));
    delivered();
    EXPECT_EQ(verify(1).status, AGENT_ERR_KEYS);
}

// The path is one of the card's own: what lies elsewhere on this machine is not there.
TEST_F(AgentSignatures, FilesOutsideOfTheCardAreNotThere)
{
    sign("maker");
    delivered();
    const std::string outside = workspace() + "/" + IMAGE;
    ASSERT_TRUE(files::exists(outside));
    EXPECT_EQ(verify(1, outside).status, AGENT_ERR_IMAGE_FILE);
    files::create_symlink(IMAGE, on_bootflash(1, "link"));
    EXPECT_EQ(verify(1, "/bootflash/link").status, AGENT_ERR_IMAGE_FILE);
    EXPECT_EQ(verify(1, "/bootflash").status, AGENT_ERR_IMAGE_FILE);
    EXPECT_EQ(verify(1).status, AGENT_OK);
}

// What is shown beforehand, what an order is answered, and what becomes of another client's request are the same.
class SignedProgramming : public AgentSignatures
{
protected:
    static constexpr const char *URI = "bootflash:system.img";

    // The image as it is now, as --image takes it.
    void offer()
    {
        make_system_image(on_bootflash(1, "system.img"), 90, {workspace() + "/" + IMAGE, image_bytes(), ""});
    }
    std::string image_bytes() const { return file_content(workspace() + "/" + IMAGE); }
    void expect_refused(std::uint32_t code)
    {
        std::ostringstream text;
        text << "0x" << std::hex << code << ' ';
        for (const char *way : {"--dry-run", "--force=older"}) {
            const finished_program done = biosctl({"program", "1", "--image", URI, way});
            EXPECT_EQ(done.exit_code, 1) << way;
            EXPECT_NE(done.errors.find(text.str()), std::string::npos) << way << done.errors << done.output;
        }
        requester other;
        programming seen = other.start(1, {.uri = URI});
        other.await_end(seen);
        EXPECT_EQ(seen.result, std::optional(code)) << seen;
        EXPECT_TRUE(flash_of(1) == in_flash().bytes);
    }
};

TEST_F(SignedProgramming, IsRefusedWithoutASignatureWhereOneIsRequired)
{
    write_file(slot_file(1, "policy"), "signed = required\n");
    offer();
    expect_refused(BIOS_REFUSED_UNSIGNED);
    make_key("other");
    sign("other");
    offer();
    expect_refused(BIOS_REFUSED_SIGNATURE);
    sign("maker");
    offer();
    EXPECT_EQ(biosctl({"program", "1", "--image", URI, "--dry-run"}).exit_code, 0);
    EXPECT_EQ(biosctl({"program", "1", "--image", URI}).exit_code, 0);
    EXPECT_TRUE(flash_of(1) == image_bytes());
}
