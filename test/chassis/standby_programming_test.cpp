// The active supervisor has another module's daemon program that module, and relays what it tells.
#include <csignal>

#include "bios_flash.h"
#include "bios_results.h"
#include "chassis_fixture.h"
#include "held_locks.h"

namespace
{

class StandbyProgramming : public chassis_test
{
protected:
    void SetUp() override
    {
        insert({.slot = 1});
        insert({.slot = 2, .role = "standby", .in_tree = nullptr});
        insert({.slot = 3, .role = "none", .serves = false});
        up();
    }
    // The active supervisor replaces the image that it sent over by an empty file.
    void expect_both_tidy() const
    {
        expect_tidy(1);
        expect_tidy(2, {".tmpbios.bin"});
        EXPECT_EQ(file_content(card_file(2, "/bootflash/.tmpbios.bin")), "");
    }
};

} // namespace

TEST_F(StandbyProgramming, GetsTheImageOfTheActiveSupervisor)
{
    const held_locks both = {{0x101, 1}, {0x201, 1}};
    keep_pauses(2);
    requester asking;
    programming seen = asking.start(2);
    ASSERT_EQ(seen.answer, 0U) << seen;
    EXPECT_EQ(locks_held(), both);
    ASSERT_TRUE(wait_until([&] { return child_pid(2) != 0; }));
    EXPECT_EQ(locks_held(), both);
    asking.await_end(seen);
    EXPECT_EQ(locks_held(), held_locks()) << "the locks go before the notice is sent";

    expect_programmed(seen, 2, new_image());
    EXPECT_EQ(seen.module, std::optional<std::uint32_t>(2));
    ASSERT_FALSE(seen.progress.empty());
    EXPECT_EQ(seen.progress.front().percent, 0U);
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    EXPECT_EQ(lines_with(1, "MTS_OPC_BIOS_PROGRAMMING_DONE status=0"), 1U);
    expect_both_tidy();

    expect_next_succeeds(1);
    expect_programmed(program(2), 2, new_image());
}

// The standby goes on without the supervisor that has asked it, and its flash is its own until it is done.
TEST_F(StandbyProgramming, OutlivesTheSupervisorsDaemon)
{
    write_file(flash_file(2, "timing"), "1\n");
    const pid_t daemon = daemon_pid(1);
    requester asking;
    ASSERT_EQ(asking.start(2).answer, 0U);
    ASSERT_TRUE(wait_until([&] { return is_marked(2); }));
    ASSERT_EQ(::kill(daemon, SIGKILL), 0);
    EXPECT_TRUE(wait_until([&] { return locks_held() == held_locks(); }));
    ASSERT_TRUE(wait_until([&] {
        return daemon_pid(1) != 0 && daemon_pid(1) != daemon &&
               file_content(slot_file(1, "state")).starts_with("serving");
    }));
    ASSERT_TRUE(wait_until([&] { return !is_marked(2); }));
    EXPECT_EQ(flash_of(2) == new_image().bytes, true);

    make_image_tree(slot_file(1, "root"), 90, image("3.0"));
    expect_programmed(program(2), 2, image("3.0"));
    EXPECT_EQ(locks_held(), held_locks());
    expect_tidy(1);
}

TEST_F(StandbyProgramming, FailureIsReportedByTheActiveSupervisor)
{
    protect(2, "3\n");
    const programming seen = program(2);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_FLASH_ERR_PROTECTED)) << seen;
    EXPECT_EQ(seen.module, std::optional<std::uint32_t>(2));
    EXPECT_EQ(flash_of(2) == old_image().bytes, true);
    expect_both_tidy();
    protect(2, "");
    expect_programmed(program(2), 2, new_image());
}

TEST_F(StandbyProgramming, ModuleWithoutADaemonIsTold)
{
    const programming seen = program(3);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_ERR_NOT_SENT)) << seen;
    EXPECT_EQ(seen.module, std::optional<std::uint32_t>(3));
    EXPECT_EQ(lines_with(1, "Could not send bios upgrade cmd to the modules err="), 1U);
    expect_both_tidy();
    expect_next_succeeds(1);
}

TEST_F(StandbyProgramming, AskedDirectlyReportsToTheRequesterAlone)
{
    write_file(card_file(2, "/bootflash/.tmpbios.bin"), new_image().bytes);
    const programming seen = program(2, {.via = 2});
    expect_programmed(seen, 2, new_image());
    EXPECT_EQ(seen.module, std::nullopt) << "it has sent a notice to all";
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    expect_tidy(2);
}
