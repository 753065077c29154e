// What an agent tells of images and of flashes: size, digest and version of what would be programmed, or which of
// the things that can be wrong is.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "agent_answers.h"
#include "agent_requester.h"
#include "chassis_fixture.h"
#include "daemon_node.h"
#include "sha256.h"
#include "text_field.h"
#include "wait_until.h"

namespace
{

namespace files = std::filesystem;

constexpr unsigned CARD_ID = 90;
constexpr const char *TREE_FILE = "/vesk/bin/bios-x86n.bin.gz";
constexpr unsigned OTHER_CARD_ID = 106; // whose flash may be larger than that of this card
constexpr const char *OTHER_TREE_FILE = "/vesk/bin/bios-x86n-o2.bin.gz";

sha256_digest digest_of(const std::string &bytes)
{
    sha256 sum;
    sum.add(bytes.data(), bytes.size());
    return sum.digest();
}

class AgentImages : public chassis_test
{
protected:
    void SetUp() override
    {
        insert({.slot = 1});
        up();
    }

    template<class Record>
    static std::span<const std::uint8_t> bytes_of(const Record &record)
    {
        return {reinterpret_cast<const std::uint8_t *>(&record), sizeof record};
    }
    static agent_reply ask_for(std::uint32_t source, const std::string &uri = "", std::uint32_t card_id = CARD_ID)
    {
        agent_image_req_t body{be32::of(card_id), be32::of(source), be32::of(1), {}};
        store_text(body.uri, uri.c_str());
        return agent_reply_to(daemon_node(1, true), AGENT_OPC_GET_IMAGE, bytes_of(body), 30)
            .value_or(agent_reply{~0U});
    }
    static void expect_image(const agent_reply &reply, const test_image &wanted)
    {
        const auto told = decode_image(reply.payload);
        ASSERT_TRUE(reply.status == 0 && told) << std::hex << reply.status;
        EXPECT_EQ(told->size_bytes, wanted.bytes.size());
        EXPECT_EQ(told->digest, digest_of(wanted.bytes));
        EXPECT_EQ("  " + told->version, wanted.version);
    }
    std::string tree_file() const { return card_file(1, TREE_FILE); }
    // Workers leave nothing behind.
    void expect_nothing_left() const
    {
        EXPECT_TRUE(wait_until([&] { return files::is_empty(card_file(1, "/var/tmp")); }));
    }
};

} // namespace

TEST_F(AgentImages, TellsOfTheImageInTheTree)
{
    expect_image(ask_for(AGENT_IMAGE_OF_TREE), new_image());
    expect_nothing_left();
}

TEST_F(AgentImages, TellsOfTheImageInASystemImage)
{
    make_system_image(on_bootflash(1, "system.img"), CARD_ID, image("3.0"));
    expect_image(ask_for(AGENT_IMAGE_OF_URI, "bootflash:system.img"), image("3.0"));
    expect_nothing_left();
}

TEST_F(AgentImages, TellsOfTheImageThatLiesReady)
{
    EXPECT_EQ(ask_for(AGENT_IMAGE_READY).status, AGENT_ERR_IMAGE_FILE);
    write_file(on_bootflash(1, ".tmpbios.bin"), image("3.0").bytes);
    expect_image(ask_for(AGENT_IMAGE_READY), image("3.0"));
    write_file(on_bootflash(1, ".tmpbios.bin"), "");
    EXPECT_EQ(ask_for(AGENT_IMAGE_READY).status, AGENT_ERR_IMAGE_EMPTY);
    EXPECT_EQ(::unlink(on_bootflash(1, ".tmpbios.bin").c_str()), 0);
    ASSERT_EQ(::mkfifo(on_bootflash(1, ".tmpbios.bin").c_str(), 0600), 0);
    EXPECT_EQ(ask_for(AGENT_IMAGE_READY).status, AGENT_ERR_IMAGE_FILE);
}

TEST_F(AgentImages, TellsApartWhatIsWrongWithTheTree)
{
    EXPECT_EQ(ask_for(AGENT_IMAGE_OF_TREE, "", 9999).status, AGENT_ERR_IMAGE_CARD);
    const std::string whole = file_content(tree_file());
    files::remove(tree_file());
    EXPECT_EQ(ask_for(AGENT_IMAGE_OF_TREE).status, AGENT_ERR_IMAGE_FILE);
    write_file(tree_file(), new_image().bytes);
    EXPECT_EQ(ask_for(AGENT_IMAGE_OF_TREE).status, AGENT_ERR_IMAGE_PACKED);
    write_file(tree_file(), "");
    EXPECT_EQ(ask_for(AGENT_IMAGE_OF_TREE).status, AGENT_ERR_IMAGE_PACKED);
    for (const std::size_t length : {whole.size() - 1, whole.size() / 2, std::size_t{2}}) {
        write_file(tree_file(), whole.substr(0, length));
        EXPECT_EQ(ask_for(AGENT_IMAGE_OF_TREE).status, AGENT_ERR_IMAGE_CUT) << length;
    }
    write_file(tree_file(), whole);
    expect_image(ask_for(AGENT_IMAGE_OF_TREE), new_image());
    EXPECT_EQ(ask_for(99).status, AGENT_ERR_REQUEST);
}

TEST_F(AgentImages, TellsApartWhatIsWrongWithAUri)
{
    for (const char *uri : {"", "usb:x", "/bootflash/system.img", "bootflash:/../etc/passwd", "bootflash:a;b"})
        EXPECT_EQ(ask_for(AGENT_IMAGE_OF_URI, uri).status, AGENT_ERR_IMAGE_URI) << uri;
    EXPECT_EQ(ask_for(AGENT_IMAGE_OF_URI, "bootflash:missing.img").status, AGENT_ERR_IMAGE_FILE);
    write_file(on_bootflash(1, "text.img"), "no system image\n");
    EXPECT_EQ(ask_for(AGENT_IMAGE_OF_URI, "bootflash:text.img").status, AGENT_ERR_IMAGE_MEMBER);
    make_system_image(on_bootflash(1, "other.img"), 106, image("3.0"));
    EXPECT_EQ(ask_for(AGENT_IMAGE_OF_URI, "bootflash:other.img").status, AGENT_ERR_IMAGE_MEMBER);
    for (const std::uintmax_t part : {4U, 2U}) {
        make_system_image(on_bootflash(1, "cut.img"), CARD_ID, image("3.0"));
        files::resize_file(on_bootflash(1, "cut.img"), files::file_size(on_bootflash(1, "cut.img")) / part);
        EXPECT_EQ(ask_for(AGENT_IMAGE_OF_URI, "bootflash:cut.img").status, AGENT_ERR_IMAGE_CUT) << part;
    }
    expect_nothing_left();
}

// The card's flash is one of 256 KiB.
TEST_F(AgentImages, StopsAtTheSizeOfTheOwnFlash)
{
    write_file(on_bootflash(1, ".tmpbios.bin"), image("3.0").bytes + "x");
    EXPECT_EQ(ask_for(AGENT_IMAGE_READY).status, AGENT_ERR_IMAGE_SIZE);
    make_image_tree(slot_file(1, "root"), CARD_ID, image("3.0", 2 * SMALL_FLASH_KIB));
    EXPECT_EQ(ask_for(AGENT_IMAGE_OF_TREE).status, AGENT_ERR_IMAGE_SIZE);
}

// 64 MiB of zeros are 64 KiB.
TEST_F(AgentImages, StopsAtAnImageThatNoFlashHolds)
{
    const std::string huge = workspace() + "/huge";
    ASSERT_EQ(run_program({"sh", "-c", "head -c 70000000 /dev/zero | gzip >'" + huge + "'"}).exit_code, 0);
    files::copy_file(huge, tree_file(), files::copy_options::overwrite_existing);
    EXPECT_EQ(ask_for(AGENT_IMAGE_OF_TREE).status, AGENT_ERR_IMAGE_SIZE);
    files::copy_file(huge, card_file(1, OTHER_TREE_FILE));
    EXPECT_EQ(ask_for(AGENT_IMAGE_OF_TREE, "", OTHER_CARD_ID).status, AGENT_ERR_IMAGE_SIZE);
}

TEST_F(AgentImages, DoesNotWaitForAFifoInTheTree)
{
    files::remove(tree_file());
    ASSERT_EQ(::mkfifo(tree_file().c_str(), 0600), 0); // is no file to wait for
    EXPECT_EQ(ask_for(AGENT_IMAGE_OF_TREE).status, AGENT_ERR_IMAGE_FILE);
    EXPECT_EQ(agent_reply_to(daemon_node(1, true), AGENT_OPC_GET_CARD).value_or(agent_reply{~0U}).status, AGENT_OK);
}

// It is met while it unpacks a large image.
TEST_F(AgentImages, AWorkerThatIsKilledLeavesNobodyWaiting)
{
    const std::string large = workspace() + "/large";
    ASSERT_EQ(run_program({"sh", "-c", "head -c 66000000 /dev/zero | gzip >'" + large + "'"}).exit_code, 0);
    files::copy_file(large, card_file(1, OTHER_TREE_FILE));
    const pid_t agent = agent_pid(1);
    std::thread killer([agent] {
        const std::string children =
            "/proc/" + std::to_string(agent) + "/task/" + std::to_string(agent) + "/children";
        EXPECT_TRUE(wait_until([&] {
            std::ifstream list(children);
            pid_t worker = 0;
            return (list >> worker) && ::kill(worker, SIGKILL) == 0;
        }));
    });
    const auto start = std::chrono::steady_clock::now();
    const agent_reply reply = ask_for(AGENT_IMAGE_OF_TREE, "", OTHER_CARD_ID);
    killer.join();
    EXPECT_EQ(reply.status, AGENT_ERR_UNREADABLE);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST_F(AgentImages, TellsWhatAFlashHolds)
{
    const auto ask_for_digest = [](std::uint32_t instance, std::uint64_t bytes) {
        return agent_reply_to(daemon_node(1, true), AGENT_OPC_GET_DIGEST,
                              bytes_of(agent_flash_digest_req_t{be32::of(instance), be64::of(bytes)}), 30)
            .value_or(agent_reply{~0U});
    };
    const std::string held = flash_of(1);
    const auto whole = decode_flash_digest(ask_for_digest(0, held.size()).payload);
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->digest, digest_of(held));
    EXPECT_TRUE(whole->rest_is_erased);
    EXPECT_FALSE(whole->marked);
    const auto half = decode_flash_digest(ask_for_digest(0, held.size() / 2).payload);
    ASSERT_TRUE(half);
    EXPECT_EQ(half->digest, digest_of(held.substr(0, held.size() / 2)));
    EXPECT_FALSE(half->rest_is_erased);
    write_file(flash_file(1, "programming"), "");
    const auto marked = decode_flash_digest(ask_for_digest(0, 0).payload);
    ASSERT_TRUE(marked);
    EXPECT_TRUE(marked->marked);
    EXPECT_EQ(marked->digest, digest_of(""));
    EXPECT_EQ(ask_for_digest(0, held.size() + 1).status, AGENT_ERR_REQUEST);
    EXPECT_EQ(ask_for_digest(7, 0).status, AGENT_ERR_FLASH);
}
