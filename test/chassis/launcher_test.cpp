// The launcher: what up, down and restart leave behind, and what they refuse.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "chassis_fixture.h"
#include "rest_of.h"

namespace
{

namespace files = std::filesystem;

constexpr const char *RECORD = "/mnt/pss/bios_run_ver"; // a start that is no upgrade's removes it
constexpr std::size_t RECORD_BYTES = 128;

class Launcher : public chassis_test
{
protected:
    void SetUp() override { insert({.slot = 1}); }

    std::string state() const { return file_content(slot_file(1, "state")); }
    std::string upgrade_restart() const
    {
        return file_content(chassis_directory() + "/inventory/1/upgrade_restart");
    }
    std::string status_of_card(const std::string &field) const
    {
        const nlohmann::json status = nlohmann::json::parse(chassis({"status", "--json"}).output);
        const nlohmann::json &value = status.at("cards").at(0).at(field);
        return value.is_string() ? value.get<std::string>() : value.dump();
    }
    // The process that started the daemon's session: the parent of its parent.
    pid_t keeper(unsigned slot = 1) const { return parent_of(parent_of(daemon_pid(slot))); }
    // Nothing of this chassis runs: its name is on every launcher's command line, its root is every daemon's.
    bool nothing_runs() const
    {
        for (const files::directory_entry &process : files::directory_iterator("/proc")) {
            std::error_code gone;
            const std::string words = text_of(process.path() / "cmdline");
            if (words.find(chassis_directory()) != std::string::npos && words.find("down") == std::string::npos &&
                words.find("guard") == std::string::npos)
                return false;
            if (files::equivalent(process.path() / "root", slot_file(1, "root"), gone) && !gone)
                return false;
        }
        return true;
    }
    void leave_traces() const
    {
        write_file(card_file(1, RECORD), std::string(RECORD_BYTES, 'v'));
        write_file(card_file(1, "/tmp/trace"), "x");
        files::create_directories(card_file(1, "/tmp/folder/below"));
    }
    void expect_keeper_takes_card_along() const
    {
        const pid_t daemon = daemon_pid(1);
        ASSERT_EQ(::kill(keeper(), SIGKILL), 0);
        EXPECT_TRUE(wait_until([&] { return ::kill(daemon, 0) != 0; })) << "the daemon outlived its keeper";
        EXPECT_EQ(status_of_card("state"), "down");
        EXPECT_EQ(chassis({"restart", "1"}).exit_code, 1);
        const finished_program next = chassis({"up"});
        EXPECT_EQ(next.exit_code, 0) << "a crash is no obstacle to the next start: " << next.errors;
        EXPECT_EQ(chassis({"down"}).exit_code, 0);
        EXPECT_TRUE(nothing_runs());
    }

private:
    static std::string text_of(const files::path &path)
    {
        std::ifstream file(path);
        return rest_of(file);
    }
    static pid_t parent_of(pid_t process)
    {
        std::ifstream status("/proc/" + std::to_string(process) + "/status");
        for (std::string word; status >> word;) {
            pid_t parent = 0;
            if (word == "PPid:" && status >> parent)
                return parent;
        }
        return 0;
    }
};

} // namespace

TEST_F(Launcher, SecondUpSaysThatTheChassisRuns)
{
    up();
    const pid_t daemon = daemon_pid(1);
    const finished_program second = chassis({"up"});
    EXPECT_EQ(second.exit_code, 1);
    EXPECT_NE(second.errors.find("running already"), std::string::npos) << second.errors;
    EXPECT_EQ(daemon_pid(1), daemon);
    EXPECT_EQ(status_of_card("state"), "serving");
}

TEST_F(Launcher, DownLeavesNoProcessAndNoMount)
{
    up();
    EXPECT_FALSE(nothing_runs());
    EXPECT_EQ(file_content("/proc/self/mountinfo").find(chassis_directory()), std::string::npos);
    EXPECT_EQ(chassis({"down"}).exit_code, 0);
    EXPECT_TRUE(nothing_runs());
    EXPECT_EQ(state(), "down\n");
    EXPECT_EQ(chassis({"down"}).exit_code, 0) << "a chassis that is down can be taken down";
}

TEST_F(Launcher, PlainIsolationLeavesNoProcessAndNoMountEither)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root";
    up("plain");
    EXPECT_EQ(chassis({"down"}).exit_code, 0);
    EXPECT_TRUE(nothing_runs());
    EXPECT_EQ(file_content("/proc/self/mountinfo").find(chassis_directory()), std::string::npos);
}

TEST_F(Launcher, CardsSurviveAShellWhoseStreamsAreClosed)
{
    up();
    ASSERT_EQ(chassis({"down"}).exit_code, 0);
    const std::string command = "exec 0<&- 1>&- 2>&-; '" CHASSIS_PROGRAM "' --dir '" + chassis_directory() + "' up";
    EXPECT_EQ(run_program({"sh", "-c", command}).exit_code, 0);
    EXPECT_EQ(status_of_card("state"), "serving");
    EXPECT_EQ(files::read_symlink("/proc/" + std::to_string(daemon_pid(1)) + "/fd/1"), slot_file(1, "log"));
}

TEST_F(Launcher, RebootEmptiesTmpAndIsNoUpgrade)
{
    up();
    leave_traces();
    const pid_t daemon = daemon_pid(1);
    ASSERT_EQ(chassis({"restart", "1"}).exit_code, 0);
    EXPECT_NE(daemon_pid(1), daemon);
    EXPECT_TRUE(files::is_empty(card_file(1, "/tmp")));
    EXPECT_FALSE(card_has(1, RECORD)) << "the daemon took the reboot for an upgrade";
}

// The daemon reads the inventory after it has bound its endpoint: the value must not go before that.
TEST_F(Launcher, RestartOfTheSoftwareIsAnUpgradeToTheDaemonAndToNoLaterStart)
{
    up();
    for (unsigned i = 0; i < 10; ++i) {
        leave_traces();
        ASSERT_EQ(chassis({"restart", "--upgrade", "1"}).exit_code, 0);
        ASSERT_TRUE(card_has(1, RECORD)) << "the daemon did not take the start " << i << " for an upgrade's";
        EXPECT_TRUE(card_has(1, "/tmp/trace"));
        EXPECT_EQ(upgrade_restart(), "0\n");
    }
    ASSERT_EQ(chassis({"restart", "1"}).exit_code, 0);
    EXPECT_FALSE(card_has(1, RECORD));
}

TEST_F(Launcher, LimitedBootFlashKeepsItsContentsOverAReboot)
{
    insert({.slot = 1, .bootflash_mib = 1});
    up();
    if (isolation(1) == "plain")
        GTEST_SKIP() << "needs mounts";
    write_file(card_file(1, "/bootflash/kept"), "x");
    ASSERT_EQ(chassis({"restart", "1"}).exit_code, 0);
    EXPECT_TRUE(card_has(1, "/bootflash/kept"));
    EXPECT_FALSE(files::exists(slot_file(1, "root/bootflash/kept"))) << "seen outside of the card";
}

TEST_F(Launcher, ProgramThatDoesNotStayFailsUpWithItsLogAndLeavesNothing)
{
    up();
    ASSERT_EQ(chassis({"down"}).exit_code, 0);
    const finished_program failed = chassis({"up", "--daemon", "/bin/false"});
    EXPECT_EQ(failed.exit_code, 1);
    EXPECT_NE(failed.errors.find("ended with exit status 1"), std::string::npos) << failed.errors;
    EXPECT_NE(failed.errors.find("is not started again"), std::string::npos) << failed.errors;
    EXPECT_TRUE(nothing_runs());
}

TEST_F(Launcher, ProgramThatDoesNotServeFailsUpInTime)
{
    up();
    ASSERT_EQ(chassis({"down"}).exit_code, 0);
    write_file(workspace() + "/mute", "#!/bin/sh\nexec sleep 1000\n");
    ASSERT_EQ(::chmod((workspace() + "/mute").c_str(), 0755), 0);
    const finished_program failed = chassis({"up", "--timeout", "1", "--daemon", workspace() + "/mute"});
    EXPECT_EQ(failed.exit_code, 1);
    EXPECT_NE(failed.errors.find("did not serve in time"), std::string::npos) << failed.errors;
    EXPECT_TRUE(nothing_runs());
}

TEST_F(Launcher, RestartRevivesACardThatWasGivenUp)
{
    up();
    for (unsigned end = 1; end <= 5; ++end) {
        const pid_t daemon = daemon_pid(1);
        ASSERT_EQ(::kill(daemon, SIGKILL), 0);
        ASSERT_TRUE(wait_until([&] {
            return (daemon_pid(1) != 0 && daemon_pid(1) != daemon) || status_of_card("state") == "failed";
        }));
    }
    ASSERT_EQ(state(), "failed\n");
    ASSERT_EQ(chassis({"restart", "1"}).exit_code, 0);
    EXPECT_EQ(status_of_card("state"), "serving");
}

TEST_F(Launcher, KilledKeeperTakesItsCardAlong)
{
    up();
    expect_keeper_takes_card_along();
}

TEST_F(Launcher, KilledKeeperTakesItsCardAlongInPlainIsolationToo)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root";
    up("plain");
    expect_keeper_takes_card_along();
}

TEST_F(Launcher, DownTakesEveryCardDownThoughTheStateOfOneCannotBeWritten)
{
    insert({.slot = 2, .role = "standby"});
    up();
    const pid_t second = keeper(2);
    files::remove(slot_file(1, "state"));
    files::create_directories(slot_file(1, "state/in_the_way"));
    ASSERT_EQ(::kill(second, SIGKILL), 0);
    EXPECT_EQ(chassis({"down"}).exit_code, 1);
    EXPECT_EQ(file_content(slot_file(2, "state")), "down\n");
    files::remove_all(slot_file(1, "state"));
    EXPECT_EQ(chassis({"down"}).exit_code, 0);
}

TEST_F(Launcher, UpStartsTheCardWhoseKeeperWasKilledAndLeavesTheOthers)
{
    insert({.slot = 2, .role = "standby"});
    up();
    const pid_t other = daemon_pid(2);
    ASSERT_EQ(::kill(keeper(), SIGKILL), 0);
    ASSERT_TRUE(wait_until([&] { return status_of_card("state") == "down"; }));

    const finished_program restart = chassis({"restart", "1"});
    EXPECT_EQ(restart.exit_code, 1);
    EXPECT_NE(restart.errors.find("card 1 is down; start it with: chassis up"), std::string::npos)
        << restart.errors;
    const finished_program second = chassis({"up"});
    EXPECT_EQ(second.exit_code, 0) << second.errors;
    EXPECT_EQ(status_of_card("state"), "serving");
    EXPECT_EQ(daemon_pid(2), other) << "the other card was started again";
    EXPECT_EQ(chassis({"restart", "1"}).exit_code, 0);
    EXPECT_NE(chassis({"up"}).errors.find("running already"), std::string::npos);
}

TEST_F(Launcher, NumberLeftByACrashKillsNobody)
{
    up();
    ASSERT_EQ(chassis({"down"}).exit_code, 0);
    for (const char *name : {"pid", "keeper"})
        write_file(slot_file(1, name), std::to_string(::getpid()) + "\n");
    write_file(slot_file(1, "state"), "serving " + std::to_string(::getpid()) + "\n");
    EXPECT_EQ(status_of_card("state"), "down");
    EXPECT_EQ(chassis({"down"}).exit_code, 0); // of this process, should it believe the number
    EXPECT_FALSE(files::exists(slot_file(1, "pid")));
}

TEST_F(Launcher, LinkInACardsRootLeadsNoWriteOutside)
{
    up();
    ASSERT_EQ(chassis({"down"}).exit_code, 0);
    const std::string outside = workspace() + "/outside";
    files::create_directories(outside);
    for (const char *folder : {"vesk/sbin", "etc", "dev", "tmp"}) {
        SCOPED_TRACE(folder);
        const std::string place = slot_file(1, "root/" + std::string(folder));
        files::rename(place, place + ".aside");
        files::create_directory_symlink(outside, place);
        EXPECT_EQ(chassis({"up"}).exit_code, 1);
        EXPECT_TRUE(files::is_empty(outside));
        files::remove(place);
        files::rename(place + ".aside", place);
    }
    EXPECT_EQ(chassis({"up"}).exit_code, 0);
}

TEST_F(Launcher, InitThatFailsHalfwayLeavesNothing)
{
    up();
    ASSERT_EQ(chassis({"down"}).exit_code, 0);
    const std::string other = workspace() + "/other.d";
    files::create_directories(workspace() + "/tree/vesk");
    ASSERT_EQ(::mkfifo((workspace() + "/tree/vesk/pipe").c_str(), 0600), 0);
    write_file(workspace() + "/other.toml",
               "[[card]]\nslot = 1\ncard_id = 90\nkind = \"supervisor\"\nflash_kib = 64\n"
               "image_tree = \"tree\"\n");
    const finished_program failed =
        run_program({CHASSIS_PROGRAM, "--dir", other, "init", workspace() + "/other.toml"});
    EXPECT_EQ(failed.exit_code, 1);
    EXPECT_NE(failed.errors.find("neither a file nor a folder"), std::string::npos) << failed.errors;
    for (const files::directory_entry &entry : files::directory_iterator(workspace()))
        EXPECT_EQ(entry.path().filename().string().find("other.d"), std::string::npos) << entry.path();
    EXPECT_EQ(chassis({"init", workspace() + "/other.toml"}).exit_code, 1) << "over a chassis that is there";
}

TEST_F(Launcher, WrongUsageIsToldByTheExitStatus)
{
    for (const std::vector<std::string> &words : std::vector<std::vector<std::string>>{
             {}, {"restart"}, {"restart", "0"}, {"restart", "233"}, {"log"}, {"frobnicate"}, {"up", "extra"}})
        EXPECT_EQ(chassis(words).exit_code, 64);
    const finished_program absent = chassis({"status"});
    EXPECT_EQ(absent.exit_code, 1);
    EXPECT_NE(absent.errors.find("no chassis there"), std::string::npos) << absent.errors;
}
