// Files to and from agents that are processes of their own, and what is left when one of both sides is killed.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "card_agent_process.h"
#include "client.h"
#include "file_transfer.h"
#include "monotonic_clock.h"
#include "mts_tools.h"
#include "nor_file_driver.h"
#include "nor_file_layout.h"
#include "rest_of.h"
#include "temporary_folder.h"
#include "test_seed.h"
#include "wire_bytes.h"

using namespace wire;

namespace
{

namespace fs = std::filesystem;

constexpr unsigned OWN_SLOT = 1;
constexpr unsigned SLOT = 2; // of the card whose agent is asked
constexpr flash_geometry FLASH = {.size_bytes = 256 << 10, .sector_bytes = 4 << 10, .page_bytes = 256};

class FileTransfer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const unsigned slot : {OWN_SLOT, SLOT}) {
            write("inventory/" + std::to_string(slot) + "/kind", "1\n");
            fs::create_directories(chassis_ + "/slots/" + std::to_string(slot));
        }
        ASSERT_EQ(chassis_attach(chassis_, SLOT), 0);
        start_agent();
    }
    void start_agent() { agent_ = std::make_unique<card_agent_process>(chassis_, SLOT); }
    void kill_agent() { agent_.reset(); }

    // A process of another card does something, with expectations of its own.
    pid_t start_process(const std::function<void(std::uint32_t node)> &work) const
    {
        std::fflush(stdout);
        const pid_t process = ::fork();
        if (process != 0)
            return process;
        (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
        EXPECT_EQ(chassis_attach(chassis_, OWN_SLOT), 0);
        work(mts_node_of_slot(SLOT));
        std::fflush(stdout);
        ::_exit(HasFailure() ? 1 : 0);
    }
    void in_process(const std::function<void(std::uint32_t node)> &work) const
    {
        int status = -1;
        ASSERT_GT(::waitpid(start_process(work), &status, 0), 0);
        EXPECT_EQ(status, 0);
    }
    static void kill(pid_t process)
    {
        (void)::kill(process, SIGKILL);
        (void)::waitpid(process, nullptr, 0);
    }

    std::string write(const std::string &name, const std::string &text) const
    {
        const std::string path = chassis_ + "/" + name;
        fs::create_directories(fs::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    std::string write(const std::string &name, const bytes &content) const
    {
        return write(name, std::string(content.begin(), content.end()));
    }
    static bytes content_of(const std::string &path)
    {
        std::ifstream file(path, std::ios::binary);
        return rest_of<bytes>(file);
    }
    std::string images() const { return chassis_ + "/slots/2/images"; }
    unsigned partial_files() const
    {
        unsigned count = 0;
        for (const auto &entry : fs::directory_iterator(images()))
            count += entry.path().filename().string().starts_with(".part.") ? 1 : 0;
        return count;
    }
    bytes create_flash() const
    {
        const bytes contents = random_content(FLASH.size_bytes);
        EXPECT_EQ(nor_file_create(SLOT, 0, FLASH, write("initial", contents)), 0);
        return contents;
    }
    std::string own_file(const std::string &name) const
    {
        fs::create_directories(chassis_ + "/own");
        return chassis_ + "/own/" + name;
    }
    std::size_t own_files() const
    {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(chassis_ + "/own"), {}));
    }

    static std::mt19937 &random()
    {
        static std::mt19937 numbers(test_seed());
        return numbers;
    }
    static bytes random_content(std::size_t count)
    {
        bytes content(count);
        for (std::uint8_t &byte : content)
            byte = static_cast<std::uint8_t>(random()());
        return content;
    }
    static bool eventually(std::int64_t limit_ms, const std::function<bool()> &condition)
    {
        const std::int64_t deadline_us = monotonic_us() + limit_ms * 1000;
        while (!condition()) {
            if (monotonic_us() > deadline_us)
                return false;
            ::usleep(2000);
        }
        return true;
    }

    const temporary_folder folder_{"chassis-files"};
    const std::string &chassis_ = folder_.path();
    std::unique_ptr<card_agent_process> agent_;
};

} // namespace

TEST_F(FileTransfer, FileArrivesByteForByteAndComesBack)
{
    const bytes content = random_content(300'001);
    const std::string path = write("local", content);
    in_process([&](std::uint32_t node) {
        EXPECT_TRUE(send_file(node, path, "image.bin").is_done());
        EXPECT_TRUE(send_file(node, path, "another").is_done());
        const auto files = ask_for_files(node);
        ASSERT_TRUE(files && files->size() == 2);
        EXPECT_EQ(files->front().name, "another");
        EXPECT_EQ(files->back().name, "image.bin");
        EXPECT_EQ(files->back().size_bytes, content.size());
        sha256 sum;
        sum.add(content.data(), content.size());
        EXPECT_EQ(files->back().sha256, sum.digest());
        EXPECT_TRUE(fetch_file(node, "image.bin", own_file("copy"), false).is_done());
        EXPECT_TRUE(remove_file(node, "another").is_done());
        EXPECT_EQ(remove_file(node, "another").status, AGENT_ERR_NO_FILE);
    });
    EXPECT_EQ(content_of(images() + "/image.bin"), content);
    EXPECT_EQ(content_of(own_file("copy")), content);
    EXPECT_FALSE(fs::exists(images() + "/another"));
}

TEST_F(FileTransfer, FlashIsFetchedIntoALocalFile)
{
    const bytes contents = create_flash();
    in_process([&](std::uint32_t node) {
        EXPECT_TRUE(fetch_flash(node, 0, own_file("copy"), false).is_done());
        EXPECT_EQ(fetch_flash(node, 0, own_file("copy"), false).file_error, EEXIST);
        EXPECT_TRUE(fetch_flash(node, 0, own_file("copy"), true).is_done());
        EXPECT_EQ(fetch_flash(node, 1, own_file("alternate"), false).status, AGENT_ERR_FLASH);
    });
    EXPECT_EQ(content_of(own_file("copy")), contents);
    EXPECT_EQ(own_files(), 1U);
}

TEST_F(FileTransfer, FailedFetchLeavesNoLocalFile)
{
    (void)create_flash();
    write(flash_file_path(SLOT, 0, "faults"), "fail read 3\n");
    in_process([&](std::uint32_t node) {
        EXPECT_EQ(fetch_flash(node, 0, own_file("copy"), false).status, AGENT_ERR_UNREADABLE);
    });
    EXPECT_EQ(own_files(), 0U);
}

TEST_F(FileTransfer, WhatCannotBeSentIsSaidSo)
{
    const std::string empty = write("empty", ""), small = write("small", "abc");
    in_process([&](std::uint32_t node) {
        EXPECT_EQ(send_file(node, empty, "image").status, AGENT_ERR_FILE_SIZE);
        EXPECT_EQ(send_file(node, chassis_ + "/missing", "image").file_error, ENOENT);
        EXPECT_EQ(send_file(node, chassis_, "image").file_error, EISDIR);
        for (const std::string &name :
             {std::string("../image"), std::string(64, 'a'), std::string(1000, 'a'), std::string()}) {
            EXPECT_EQ(send_file(node, small, name).status, AGENT_ERR_FILE_NAME) << name;
            EXPECT_EQ(fetch_file(node, name, own_file("copy"), false).status, AGENT_ERR_FILE_NAME) << name;
        }
        EXPECT_EQ(send_file(mts_node_of_slot(9), small, "image").request_error, ECONNREFUSED);
        EXPECT_FALSE(ask_for_files(mts_node_of_slot(9)));
        const auto files = ask_for_files(node);
        EXPECT_TRUE(files && files->empty());
    });
}

// The rules do the same to the same messages at each run.
TEST_F(FileTransfer, LostMessagesAreSentAgain)
{
    const bytes content = random_content(150'000), contents = create_flash();
    const std::string path = write("local", content);
    write("transport/faults", "lose 10% 46\ndouble 20% 6\n");
    in_process([&](std::uint32_t node) {
        EXPECT_TRUE(send_file(node, path, "image").is_done());
        EXPECT_TRUE(fetch_flash(node, 0, own_file("copy"), false).is_done());
    });
    EXPECT_EQ(content_of(images() + "/image"), content);
    EXPECT_EQ(content_of(own_file("copy")), contents);
    const bytes faulted = content_of(chassis_ + "/transport/faulted");
    EXPECT_NE(std::string(faulted.begin(), faulted.end()).find("lose"), std::string::npos) << "nothing was tried";
}

TEST_F(FileTransfer, WhatAKilledSenderHasBegunIsGoneWithinASecond)
{
    const pid_t sender = start_process([](std::uint32_t node) {
        client_endpoint endpoint;
        const bytes file = text_field("image", 64) + words({0, 100'000}) + bytes(32);
        const request_answer begun = endpoint.request_agent(node, 4820, file, 1);
        if (begun.payload.size() != 16)
            return;
        const bytes transfer(begun.payload.begin(), begun.payload.begin() + 8);
        (void)endpoint.request_agent(node, 4821, transfer + words({0, 0}) + bytes(57344), 1);
        for (;;)
            ::pause();
    });
    ASSERT_TRUE(eventually(10'000, [&] { return fs::exists(images()) && partial_files() == 1; }));
    ::usleep(600'000); // the agent has looked at the sender, who lives
    EXPECT_EQ(partial_files(), 1U);
    kill(sender);
    EXPECT_TRUE(eventually(1000, [&] { return partial_files() == 0; }));
    EXPECT_FALSE(fs::exists(images() + "/image"));
}

TEST_F(FileTransfer, KilledAgentLeavesWholeFilesOnly)
{
    const bytes content = random_content(300'000);
    const std::string path = write("local", content);
    const std::string image = images() + "/image";
    const std::int64_t start_us = monotonic_us();
    in_process([&](std::uint32_t node) { EXPECT_TRUE(send_file(node, path, "image").is_done()); });
    const auto delivery_us = static_cast<unsigned>(monotonic_us() - start_us);
    unsigned whole = 0, cut = 0;
    for (unsigned run = 0; run < 100; ++run) {
        fs::remove(image);
        const pid_t sender = start_process([&](std::uint32_t node) { (void)send_file(node, path, "image"); });
        ::usleep(static_cast<useconds_t>(random()() % (2 * delivery_us)));
        kill_agent();
        kill(sender);
        cut += partial_files();
        if (fs::exists(image)) {
            ++whole;
            ASSERT_EQ(content_of(image), content) << "run " << run;
        }
        start_agent();
        ASSERT_TRUE(eventually(1000, [&] { return partial_files() == 0; })) << "run " << run;
    }
    EXPECT_GT(whole, 0U);
    EXPECT_GT(cut, 0U);
    in_process([&](std::uint32_t node) { EXPECT_TRUE(send_file(node, path, "image").is_done()); });
    EXPECT_EQ(content_of(image), content);
}
