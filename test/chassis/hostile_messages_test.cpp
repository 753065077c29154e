// Messages from somebody who means harm: whatever comes in, the daemon goes on, runs no command out of a message,
// and serves the next request.
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <random>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "bios_messages.h"
#include "bios_opcodes.h"
#include "bios_results.h"
#include "chassis_dir.h"
#include "chassis_fixture.h"
#include "mts_tools.h"

namespace
{

constexpr std::uint32_t QUICK_OPCODES[] = {
    MTS_OPC_BIOS_GET_LOADER_IMAGE,     MTS_OPC_BIOS_GET_KS_IMAGE,      MTS_OPC_BIOS_MODULE_LOCK,
    MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, MTS_OPC_BIOS_PROGRAMMING_START, MTS_OPC_BIOS_GET_LC_BIOS_VERSION,
};
// Those that unpack a system image.
constexpr std::uint32_t SLOW_OPCODES[] = {MTS_OPC_BIOS_INSTALL_LOADER, MTS_OPC_BIOS_GET_SRC_BIOS_VERSION};
constexpr std::uint32_t UNSERVED_OPCODES[] = {
    0,
    1,
    MTS_OPC_BIOS_SRC_VERSION_PROGRESS,
    4704,
    MTS_OPC_BIOS_PROGRAMMING_NOTIFY,
    MTS_OPC_BIOS_PROGRAMMING_DONE,
    MTS_OPC_BIOS_PROGRAMMING_PROGRESS,
    4796,
    0x7fffffff,
    0xffffffff,
};
constexpr std::uint32_t LONGEST = MTS_READABLE_PAYLOAD_BYTES;

class HostileMessages : public chassis_test
{
protected:
    void SetUp() override
    {
        insert({.slot = 1});
        up();
        daemon_ = daemon_pid(1);
    }
    void expect_unharmed() const
    {
        EXPECT_EQ(daemon_pid(1), daemon_) << "the daemon has ended";
        EXPECT_EQ(lines_with(1, "bios_daemon was ended by signal"), 0U);
        EXPECT_EQ(lines_with(1, "bios_daemon ended with"), 0U);
    }
    // A message that the daemon's queue has no room for is offered again.
    static void send(requester &stranger, std::uint32_t opcode, const void *payload, std::uint32_t length)
    {
        ASSERT_TRUE(wait_until([&] { return stranger.send(1, opcode, payload, length); })) << "opcode " << opcode;
    }
    // All that was sent before has been served when this is answered, and no programming runs any more.
    void wait_until_quiet(requester &asking) const
    {
        int error = 0;
        EXPECT_EQ(asking.request(1, 1, "last", error, 300), std::nullopt);
        EXPECT_EQ(error, EOPNOTSUPP);
        EXPECT_TRUE(wait_until([&] { return child_pid(1) == 0 && !is_locked(1); }));
        // The daemon reports a result after it has given the lock back: the answer to this request comes after
        // that.
        EXPECT_EQ(asking.request(1, 1, "last", error, 300), std::nullopt);
    }

private:
    pid_t daemon_ = 0;
};

struct hostile_uri {
    const char *name;
    const char *text;
};

void PrintTo(const hostile_uri &uri, std::ostream *out)
{
    *out << uri.name;
}

class HostileUri : public HostileMessages, public testing::WithParamInterface<hostile_uri>
{
};

} // namespace

TEST_P(HostileUri, RunsNoCommand)
{
    const programming seen = program(1, {.uri = GetParam().text});

    EXPECT_EQ(seen.answer, BIOS_ERR_URI) << seen;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true) << seen;
    for (const char *place : {"/pwned", "/bootflash/pwned", "/tmp/pwned", "/root/pwned"})
        EXPECT_FALSE(card_has(1, place)) << place;
    EXPECT_FALSE(std::filesystem::exists("/tmp/pwned"));
    expect_unharmed();
    expect_tidy(1);
    expect_next_succeeds();
}

INSTANTIATE_TEST_SUITE_P(Characters, HostileUri,
                         testing::Values(hostile_uri{"Semicolon", "bootflash:;touch /bootflash/pwned"},
                                         hostile_uri{"Substitution", "bootflash:$(touch /bootflash/pwned)"},
                                         hostile_uri{"Backquotes", "bootflash:`touch /bootflash/pwned`"},
                                         hostile_uri{"Pipe", "bootflash:a|touch /bootflash/pwned"},
                                         hostile_uri{"Ampersand", "bootflash:a&touch /bootflash/pwned&"},
                                         hostile_uri{"LineBreak", "bootflash:a\ntouch /bootflash/pwned"},
                                         hostile_uri{"Redirection", "file:///tmp/a>/bootflash/pwned"},
                                         hostile_uri{"DashInName", "bootflash:-x"},
                                         hostile_uri{"LeadingDash", "-rf"}, hostile_uri{"Empty", ""},
                                         hostile_uri{"Climbing", "bootflash:../../bootflash/pwned"},
                                         hostile_uri{"Device", "file:///dev/zero"}),
                         [](const testing::TestParamInfo<hostile_uri> &row) {
                             return std::string(row.param.name);
                         });

TEST_F(HostileMessages, TextsWithoutEndAreCut)
{
    const std::string endless = "bootflash:" + std::string(sizeof(bios_programming_req_t::uri) - 10, 'a');
    const programming seen = program(1, {.uri = endless});
    EXPECT_EQ(seen.answer, BIOS_ERR_URI) << seen;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    expect_unharmed();
    expect_tidy(1);

    // Every byte of the body set: module 0xffffffff, no terminator anywhere.
    requester stranger;
    int error = 0;
    const auto answer = stranger.request(1, MTS_OPC_BIOS_PROGRAMMING_START,
                                         std::string(sizeof(bios_programming_req_t), '\xff'), error);
    EXPECT_TRUE(answer.has_value()) << error;
    wait_until_quiet(stranger);
    expect_unharmed();
    expect_next_succeeds();
}

TEST_F(HostileMessages, ModulesThatCannotBeAreRefusedOrFail)
{
    for (const std::uint32_t module : {0U, 233U, 0xffffffffU, 0x80000000U, 257U}) {
        const programming seen = program(module);
        ASSERT_EQ(seen.error, 0) << module;
        if (seen.answer == 0) {
            EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_ERR_NO_ENTRIES)) << module << ": " << seen;
            EXPECT_EQ(seen.module, std::optional(module));
        } else {
            EXPECT_EQ(seen.answer, BIOS_ERR_BUSY) << module;
        }
        EXPECT_TRUE(seen.progress.empty()) << module;
        EXPECT_EQ(flash_of(1) == old_image().bytes, true);
        expect_tidy(1);
    }
    expect_unharmed();
    expect_next_succeeds();
}

// Payloads of every length up to a whole programming request, shorter than the request's header too.
TEST_F(HostileMessages, ShortRequestsAreSurvived)
{
    const std::string bytes(LONGEST, '\x02');
    requester stranger;
    for (const std::uint32_t opcode : QUICK_OPCODES) {
        for (std::uint32_t length = 0; length <= LONGEST; ++length)
            send(stranger, opcode, bytes.data(), length);
    }
    wait_until_quiet(stranger);
    expect_unharmed();
    expect_next_succeeds();
}

TEST_F(HostileMessages, ShortRequestsForLongWorkAreSurvived)
{
    const std::string bytes(LONGEST, '\0');
    requester stranger;
    for (const std::uint32_t opcode : SLOW_OPCODES) {
        for (const std::uint32_t length : {0U, 1U, 4U, 111U, 112U, 113U, 116U, 224U, 380U, 640U})
            send(stranger, opcode, bytes.data(), length);
    }
    wait_until_quiet(stranger);
    expect_unharmed();
    expect_next_succeeds();
}

TEST_F(HostileMessages, ShortMessagesOfOpcodesThatAreNotServedAreSurvived)
{
    const std::string bytes(LONGEST, '\xa5');
    requester stranger;
    for (const std::uint32_t opcode : UNSERVED_OPCODES) {
        for (std::uint32_t length = 0; length <= LONGEST; ++length)
            send(stranger, opcode, bytes.data(), length);
    }
    wait_until_quiet(stranger);
    expect_unharmed();
    expect_next_succeeds();
}

TEST_F(HostileMessages, UnknownOpcodesAreRejectedAtAnyLength)
{
    requester stranger;
    for (const std::uint32_t opcode : UNSERVED_OPCODES) {
        for (const std::size_t length : {0U, 1U, 8U, 112U, 529U, 4096U}) {
            int error = 0;
            EXPECT_EQ(stranger.request(1, opcode, std::string(length, '\x5a'), error), std::nullopt) << opcode;
            ASSERT_EQ(error, EOPNOTSUPP) << "opcode " << opcode << ", length " << length;
        }
    }
    expect_unharmed();
    expect_next_succeeds();
}

TEST_F(HostileMessages, LargestMessageIsServedAndALargerOneRefused)
{
    const std::string bytes(MTS_MAX_PAYLOAD_BYTES + 1, '\x11');
    requester stranger;
    EXPECT_FALSE(stranger.send(1, 1, bytes.data(), MTS_MAX_PAYLOAD_BYTES + 1));
    EXPECT_EQ(errno, EMSGSIZE);
    for (const std::uint32_t opcode : {3U, static_cast<std::uint32_t>(MTS_OPC_BIOS_PROGRAMMING_DONE)})
        send(stranger, opcode, bytes.data(), MTS_MAX_PAYLOAD_BYTES);
    send(stranger, MTS_OPC_BIOS_PROGRAMMING_START, bytes.data(), MTS_MAX_PAYLOAD_BYTES);
    wait_until_quiet(stranger);
    EXPECT_EQ(lines_with(1, "opc=3(0x3)"), 1U) << "the large message has not arrived";
    expect_unharmed();
    expect_next_succeeds();
}

TEST_F(HostileMessages, WildOpcodesOfAStrangerAreSurvived)
{
    const unsigned seed = std::random_device{}();
    RecordProperty("seed", static_cast<int>(seed));
    std::printf("seed %u\n", seed);
    const pid_t stranger = ::fork();
    ASSERT_GE(stranger, 0);
    if (stranger == 0) {
        std::mt19937 random(seed);
        requester other;
        for (unsigned i = 0; i < 2000; ++i) {
            const std::string bytes(random() % 700, static_cast<char>(random()));
            const auto opcode = static_cast<std::uint32_t>(i % 4 != 0 ? random() : 4600 + random() % 90);
            if (!wait_until(
                    [&] { return other.send(1, opcode, bytes.data(), static_cast<std::uint32_t>(bytes.size())); }))
                ::_exit(1);
        }
        ::_exit(0);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(stranger, &status, 0), stranger);
    EXPECT_EQ(status, 0);
    requester asking;
    wait_until_quiet(asking);
    expect_unharmed();
    expect_next_succeeds();
}

// Datagrams that no transport has made, right into the daemon's socket.
TEST_F(HostileMessages, BytesThatAreNoMessageAreSurvived)
{
    const unsigned seed = std::random_device{}();
    RecordProperty("seed", static_cast<int>(seed));
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    const unique_fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/mts/%08x.%08x", chassis_dir_fd(),
                  mts_node_of_slot(1), BIOS_DAEMON_SAP);
    ASSERT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    for (unsigned i = 0; i < 500; ++i) {
        std::string bytes(random() % 900, '\0');
        for (char &byte : bytes)
            byte = static_cast<char>(random());
        ASSERT_EQ(::send(socket.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
    requester asking;
    wait_until_quiet(asking);
    expect_unharmed();
    expect_next_succeeds();
}
