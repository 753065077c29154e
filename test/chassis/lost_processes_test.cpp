// Daemons and programming children that are killed.
#include <csignal>
#include <unistd.h>

#include "bios_opcodes.h"
#include "bios_results.h"
#include "chassis_dir.h"
#include "chassis_fixture.h"
#include "exit_codes.h"
#include "programming_child.h"
#include "run_program.h"

namespace
{

class LostProcesses : public chassis_test
{
protected:
    void SetUp() override
    {
        insert({.slot = 1});
        up();
    }
    // The notice that an end without a result is.
    void expect_unproven(const programming &seen) const
    {
        EXPECT_EQ(seen.result, std::optional<std::uint32_t>(0)) << seen;
        EXPECT_FALSE(seen.verified()) << seen;
    }
    void expect_half_programmed() const
    {
        EXPECT_TRUE(is_marked(1));
        std::string version;
        EXPECT_EQ(flash_version(1, version), -61) << version;
        EXPECT_NE(flash_of(1) == old_image().bytes, true);
        EXPECT_NE(flash_of(1) == new_image().bytes, true);
        expect_tidy(1, {".tmpbios.bin"});
    }
    void expect_child_finishes(); // when its daemon is killed
    bool wait_for_new_daemon(pid_t old) const
    {
        return wait_until([&] { return daemon_pid(1) != 0 && daemon_pid(1) != old && serves(); });
    }

private:
    bool serves() const { return file_content(slot_file(1, "state")).starts_with("serving"); }
};

class LostProcessesWithoutMounts : public LostProcesses
{
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root";
        insert({.slot = 1});
        up("plain");
    }
};

void LostProcesses::expect_child_finishes()
{
    write_file(flash_file(1, "timing"), "1\n"); // slow enough to be met at work
    requester asking;
    programming seen = asking.start(1);
    ASSERT_TRUE(asking.await_progress(
        seen,
        [](const programming &so_far) { return !so_far.progress.empty() && so_far.progress.back().percent > 10; },
        std::chrono::seconds(60)))
        << seen;
    const pid_t daemon = daemon_pid(1);
    const pid_t child = child_pid(1);
    ASSERT_NE(child, 0);

    ASSERT_EQ(::kill(daemon, SIGKILL), 0);

    ASSERT_TRUE(wait_for_new_daemon(daemon));
    EXPECT_EQ(::kill(child, 0), 0) << "the child did not outlive its daemon";
    EXPECT_TRUE(is_marked(1));
    EXPECT_EQ(program(1).answer, BIOS_ERR_BUSY);
    const finished_program told = biosctl({"program", "1"});
    EXPECT_EQ(told.exit_code, EXIT_BUSY);
    EXPECT_NE(told.errors.find(" of slot 1, which has written its flash since "), std::string::npos) << told.errors;
    EXPECT_EQ(::kill(child, 0), 0);
    ASSERT_TRUE(wait_until([&] { return ::kill(child, 0) != 0; }, std::chrono::seconds(60)));
    EXPECT_EQ(flash_of(1) == new_image().bytes, true);
    expect_tidy(1);
    write_file(flash_file(1, "timing"), "0\n");
    expect_next_succeeds();
}

} // namespace

TEST_F(LostProcesses, ChildThatHasNotBegunToWriteIsNamedToWhomeverItKeepsWaiting)
{
    keep_pauses(1);
    requester asking;
    programming seen = asking.start(1);
    ASSERT_EQ(seen.answer, 0U);
    ASSERT_EQ(chassis_attach(chassis_directory(), 0), 0);
    ASSERT_TRUE(wait_until([&] { return programming_child_lives(1); }));
    const pid_t daemon = daemon_pid(1);
    ASSERT_EQ(::kill(daemon, SIGKILL), 0);
    ASSERT_TRUE(wait_for_new_daemon(daemon));
    const finished_program told = biosctl({"program", "1"});
    EXPECT_EQ(told.exit_code, EXIT_BUSY);
    EXPECT_NE(told.errors.find("writer: process "), std::string::npos) << told.errors;
    EXPECT_NE(told.errors.find(" of slot 1, which carries out a programming"), std::string::npos) << told.errors;
    EXPECT_TRUE(wait_until([&] { return flash_of(1) == new_image().bytes && !is_marked(1); }));
}

TEST_F(LostProcesses, ChildKilledBeforeItWritesLeavesTheFlashAlone)
{
    keep_pauses(1);
    requester asking;
    programming seen = asking.start(1);
    ASSERT_TRUE(wait_until([&] { return child_pid(1) != 0; }));
    ASSERT_EQ(::kill(child_pid(1), SIGKILL), 0);
    asking.await_end(seen);

    expect_unproven(seen);
    EXPECT_TRUE(seen.progress.empty()) << seen;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    EXPECT_FALSE(is_marked(1));
    expect_tidy(1, {".tmpbios.bin", ".tmpbios.bin.gz"});
    expect_next_succeeds();
}

TEST_F(LostProcesses, ChildKilledWhileItErasesLeavesAMarkedFlashThatTheNextRequestRepairs)
{
    set_faults(1, "torn erase 5");
    const programming seen = program(1);
    expect_unproven(seen);
    EXPECT_FALSE(seen.progress.empty()) << seen;
    expect_half_programmed();
    expect_next_succeeds();
}

TEST_F(LostProcesses, ChildKilledWhileItWritesLeavesAMarkedFlashThatTheNextRequestRepairs)
{
    set_faults(1, "torn program 300");
    const programming seen = program(1);
    expect_unproven(seen);
    EXPECT_FALSE(seen.progress.empty()) << seen;
    expect_half_programmed();
    expect_next_succeeds();
}

TEST_F(LostProcesses, ChildKilledBeforeTheMarkerGoesLeavesAMarkedFlashThatTheNextRequestRepairs)
{
    set_faults(1, "stop marker 2");
    const programming seen = program(1);
    expect_unproven(seen);
    EXPECT_TRUE(is_marked(1));
    expect_tidy(1, {".tmpbios.bin"});
    expect_next_succeeds();
}

TEST_F(LostProcesses, ChildOfAKilledDaemonFinishesItsWork)
{
    expect_child_finishes();
}

TEST_F(LostProcessesWithoutMounts, ChildOfAKilledDaemonFinishesItsWork)
{
    expect_child_finishes();
}

// A boot of the card is a cut of its power, and a card that goes down is switched off.
TEST_F(LostProcesses, ChildEndsWithItsCard)
{
    write_file(flash_file(1, "timing"), "1\n");
    requester asking;
    programming seen = asking.start(1);
    ASSERT_TRUE(wait_until([&] { return is_marked(1); }));
    const pid_t child = child_pid(1);
    ASSERT_EQ(chassis({"restart", "1"}).exit_code, 0);
    EXPECT_NE(::kill(child, 0), 0);
    EXPECT_TRUE(is_marked(1));
    write_file(flash_file(1, "timing"), "0\n");
    expect_next_succeeds();
}

TEST_F(LostProcesses, NobodyWaitsForAWriterThatWasStopped)
{
    write_file(flash_file(1, "timing"), "1\n");
    running_program ordered(biosctl_words({"program", "1"}));
    ASSERT_TRUE(wait_until([&] { return is_marked(1); }, std::chrono::seconds(60)));
    const pid_t child = child_pid(1);
    ASSERT_EQ(::kill(child, SIGSTOP), 0);
    const auto begin = std::chrono::steady_clock::now();
    const finished_program told = ordered.wait(std::chrono::seconds(60));
    EXPECT_LE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(35));
    EXPECT_EQ(told.exit_code, EXIT_FAILED) << told.errors;
    EXPECT_NE(told.errors.find("no progress for 31 s"), std::string::npos) << told.errors;
    EXPECT_NE(told.errors.find(" of slot 1, which has written its flash since "), std::string::npos) << told.errors;
    EXPECT_NE(told.errors.find("flash: being programmed: do not reboot the card"), std::string::npos)
        << told.errors;
    ASSERT_EQ(::kill(child, SIGCONT), 0);
    ASSERT_TRUE(wait_until([&] { return !is_marked(1); }, std::chrono::seconds(60)));
    EXPECT_EQ(flash_of(1) == new_image().bytes, true);
}

// The daemon does not program later what nobody waits for.
TEST_F(LostProcesses, RequestToADaemonThatHangsIsNotServedWhenItGoesOn)
{
    const pid_t daemon = daemon_pid(1);
    ASSERT_EQ(::kill(daemon, SIGSTOP), 0);
    const finished_program told = biosctl({"program", "1", "--timeout", "2"});
    EXPECT_EQ(told.exit_code, 1) << told.errors;
    ASSERT_EQ(::kill(daemon, SIGCONT), 0);
    requester asking;
    int error = 0;
    EXPECT_NE(asking.request(1, MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, std::string("\0\0\0\1", 4), error),
              std::nullopt);
    EXPECT_EQ(lines_with(1, "got MTS_OPC_BIOS_PROGRAMMING_START"), 0U);
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    expect_next_succeeds();
}
