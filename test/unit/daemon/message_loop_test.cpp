// The daemon's loop: receiving, reaping the programming child, dispatching.
#include <cerrno>
#include <iterator>
#include <sys/wait.h>

#include "daemon_requests.h"
#include "random_input.h"

extern "C" std::int32_t __wrap_bios_daemon_child_process(std::int32_t, std::uint32_t, std::uint32_t, const void *,
                                                         std::int32_t, const char *, std::uint32_t, std::uint32_t,
                                                         std::uint8_t)
{
    return static_cast<std::int32_t>(platform().called("bios_daemon_child_process", "").value);
}

namespace
{

constexpr pid_t child = 4242;
constexpr char notify_node[] = "0xfe000000, 0, 4792";

std::string waits(int seconds)
{
    return "mts_recv(7, {1, 0, " + std::to_string(seconds) + ", 0, 0, 0, 0, 0, 0, 0})";
}

std::string notify(const std::string &words)
{
    return std::string("mts_send(7, ") + notify_node + ", [" + words + "], 8, 0, 0, 0)";
}

using MessageLoop = whole_daemon_test;

TEST_F(MessageLoop, WaitsFiveSecondsWhileIdle)
{
    platform().receive_times_out(3);
    run_to_the_end();
    EXPECT_EQ(platform().calls("mts_recv"), lines(4, waits(5)));
}

TEST_F(MessageLoop, LooksForEndedChildrenOnEveryPass)
{
    platform().receive_times_out(2);
    platform().deliver(4795);
    run_to_the_end();
    EXPECT_EQ(platform().story({"mts_recv", "waitpid", "mts_opc_get"}),
              (lines{waits(5), "waitpid(-1, WNOHANG)", waits(5), "waitpid(-1, WNOHANG)", waits(5),
                     "waitpid(-1, WNOHANG)", "mts_opc_get(#1)", waits(5)}));
}

TEST_F(MessageLoop, DoesNotLogReceiveErrors)
{
    platform().receive_times_out();
    platform().receive_fails(EIO);
    platform().receive_fails(4);
    run_to_the_end();
    EXPECT_EQ(platform().logs().back(), "Going to infinite-loop for MTS processing");
}

TEST_F(MessageLoop, RejectsOpcodesThatItDoesNotServe)
{
    for (const std::uint32_t opcode : {4795u, 4792u, 4793u, 4698u, 0u, 0xffffffffu})
        platform().deliver(opcode);
    run_to_the_end();
    const lines told = platform().story({"log", "sdwrap_process_msg", "mts_respond_reject", "dropped"});
    EXPECT_THAT(platform().calls("mts_respond_reject"), testing::SizeIs(6));
    EXPECT_EQ(platform().calls("mts_respond_reject")[0], "mts_respond_reject(7, 0, 0, #1, 0, 0)");
    EXPECT_EQ(lines(told.end() - 4, told.end()),
              (lines{"log(Got an MTS msg rc=0 opc=-1(0xffffffff))", "sdwrap_process_msg(7, #6)",
                     "mts_respond_reject(7, 0, 0, #6, 0, 0)", "dropped(#6)"}));
    EXPECT_TRUE(platform().logged("Got an MTS msg rc=0 opc=4795(0x12bb)"));
    EXPECT_EQ(answers(), lines{});
}

TEST_F(MessageLoop, DropsWhatTheDebugFrameworkConsumed)
{
    for (const int result : {0, 2, -1}) {
        platform().next_result("sdwrap_process_msg", {result, 0});
        platform().deliver(4703, request({0, 0, 0, 2, 0, 0, 9, 2}));
    }
    run_to_the_end();
    EXPECT_EQ(platform().calls("dropped"), (lines{"dropped(#1)", "dropped(#2)", "dropped(#3)"}));
    EXPECT_EQ(platform().calls("modlock_module_lock"), lines{});
    EXPECT_EQ(platform().calls("mts_respond_reject"), lines{});
    EXPECT_EQ(answers(), lines{});
}

TEST_F(MessageLoop, ServesAPeersLockRequestAndDropsItAfterwards)
{
    platform().deliver(4703, request({0, 0, 0, 2, 0, 0, 9, 2}));
    run_to_the_end();
    EXPECT_EQ(platform().story({"modlock_module_lock", "cmi_response", "dropped"}),
              (lines{"modlock_module_lock(129, 0x902, {1, 0, 0, 0x4071000b})",
                     "cmi_response([00000002 00000902 00000000], 12, 7, #1, 0x0)", "dropped(#1)"}));
}

TEST_F(MessageLoop, AnswersAPeersUnlockOfWhatItNeverLockedWithSuccess)
{
    platform().every_result("modlock_module_unlock", {-1, ENOENT});
    platform().deliver(4703, request({0, 0, 0, 3, 0, 0, 9, 2}));
    platform().deliver(4703, request({0, 0, 0, 2, 0, 0, 9, 2}));
    platform().deliver(4703, request({0, 0, 0, 3, 0, 0, 9, 2}));
    run_to_the_end();
    EXPECT_EQ(answers(), (lines{"cmi_response([00000003 00000902 00000000], 12, 7, #1, 0x0)",
                                "cmi_response([00000002 00000902 00000000], 12, 7, #2, 0x0)",
                                "cmi_response([00000003 00000902 80000002], 12, 7, #3, 0x0)"}));
}

TEST_F(MessageLoop, HandsEachVersionRequestToItsHandler)
{
    platform().deliver(4789, request({1, 0, 0, 0}));
    platform().deliver(4790, request({0, 0, 0, 5}));
    platform().deliver(4794);
    run_to_the_end();
    EXPECT_EQ(platform().calls("mts_respond_reject"), lines{});
    EXPECT_EQ(answers().size(), 3u);
    EXPECT_TRUE(platform().logged("called MTS_OPC_BIOS_GET_SRC_BIOS_VERSION"));
    EXPECT_TRUE(platform().logged("called MTS_OPC_BIOS_GET_MOD_BIOS_VERSION"));
    EXPECT_TRUE(platform().logged("called MTS_OPC_BIOS_GET_LC_BIOS_VERSION"));
}

TEST_F(MessageLoop, HandsEachLoaderRequestToItsHandlerAndDropsItAfterwards)
{
    platform().write_file("/etc/srg-ks.sro", "ks");
    platform().deliver(4700, request({'/', 'x'}));
    platform().deliver(4701, request({0, 0, 0, 0}));
    platform().deliver(4702, request({0, 0, 0, 2}));
    run_to_the_end();
    EXPECT_EQ(platform().calls("mts_respond_reject"), lines{});
    EXPECT_EQ(platform().story({"cmi_response", "dropped"}),
              (lines{"cmi_response([00000000], 4, 7, #1, 0x40530005)", "dropped(#1)",
                     "cmi_response([00000000 00000000], 8, 7, #2, 0x0)", "dropped(#2)",
                     "cmi_response([00000000 00000002 6b73], 10, 7, #3, 0x0)", "dropped(#3)"}));
}

// An install request can take long: the end of a programming is noticed only afterwards.
TEST_F(MessageLoop, ReapsTheChildOnlyAfterAnInstallation)
{
    fork_gives(child);
    start_request();
    platform().deliver(4700, request({'/', 'x'}));
    platform().receive_times_out();
    platform().child_ends(child, 0);
    run_to_the_end();
    const lines story = platform().story({"system", "cmi_response", "mts_send"});
    ASSERT_GE(story.size(), 2u);
    EXPECT_THAT(story[story.size() - 2], testing::StartsWith("cmi_response([00000000], 4, 7, #2"));
    EXPECT_THAT(story.back(), testing::StartsWith("mts_send(7, 0xfe000000, 0, 4792"));
}

TEST_F(MessageLoop, FetchesNoPayloadForALineCardsVersionRequest)
{
    platform().deliver(4794, request({1, 2, 3, 4}));
    run_to_the_end();
    EXPECT_EQ(platform().calls("mts_payload_get"), lines{});
    EXPECT_EQ(answers().size(), 1u);
}

TEST_F(MessageLoop, EndsWhenAModulesVersionIsAskedForAndTheOwnCardIsUnknown)
{
    platform().next_result("get_card_module_info", {-1, EIO});
    platform().deliver(4790, request({0, 0, 0, 9}));
    EXPECT_EQ(run_daemon().exit_status, 0x30);
    EXPECT_EQ(platform().logs().back(), "get sw card id failed");
    EXPECT_EQ(answers(), lines{});
    EXPECT_EQ(platform().calls("sleep"), lines{"sleep(5)"});
}

// Nothing that another card sends ends the daemon.
TEST_F(MessageLoop, SurvivesRandomMessages)
{
    random_input random;
    SCOPED_TRACE(random.trace());
    constexpr std::uint32_t opcodes[] = {4700, 4703, 4789, 4790, 4791, 4794, 4795};
    constexpr std::uint8_t telling_bytes[] = {0, 1, 2, 3, 5, 9, 18, 233, 0x7f, 0x80, 0xff, '/', ';'};
    const auto random_bytes = [&](std::size_t length) {
        bytes content(length);
        for (std::uint8_t &byte : content)
            byte = random.below(2) == 0 ? telling_bytes[random.below(std::size(telling_bytes))]
                                        : static_cast<std::uint8_t>(random.below(256));
        return content;
    };
    constexpr int messages = 150;
    for (int i = 0; i < messages; ++i) {
        platform().deliver(opcodes[random.below(std::size(opcodes))], random_bytes(random.below(700)));
        platform().responses.push_back(random_bytes(random.below(1600)));
        if (random.below(3) == 0)
            platform().child_ends(child, static_cast<int>(random.below(0x10000)));
    }
    platform().every_result("fork", {child, 0});
    run_to_the_end();
    EXPECT_EQ(platform().calls("dropped").size(), static_cast<std::size_t>(messages));
}

TEST_F(MessageLoop, ReportsNothingWhileNoChildWasForked)
{
    platform().receive_times_out(3);
    platform().receive_times_out();
    platform().child_ends(0, 0);
    platform().receive_times_out();
    platform().child_ends(child, 0x0c00);
    run_to_the_end();
    EXPECT_EQ(sent(), lines{});
    EXPECT_EQ(platform().calls("system"), lines{});
}

// A programming of module 9 was accepted and its child has the pid 4242.
class Reaping : public whole_daemon_test
{
protected:
    Reaping()
    {
        fork_gives(child);
        start_request();
    }
    static void child_ends_with(int status)
    {
        platform().receive_times_out();
        platform().child_ends(child, status);
    }
    static lines report() { return platform().story({"system", "modlock_module_unlock", "mts_send"}); }
    static bool ended(const std::string &message) { return platform().logged("Un-mark in-progress " + message); }
};

TEST_F(Reaping, ReportsSuccessAndKeepsTheRecord)
{
    child_ends_with(0);
    run_to_the_end();
    EXPECT_EQ(report(), (lines{"modlock_module_unlock(129, 0x902)", "modlock_module_unlock(129, 0x501)",
                               notify("00000000 00000009")}));
    EXPECT_TRUE(ended("exit=0 retcode=0"));
    EXPECT_TRUE(platform().file_exists("/mnt/pss/bios_run_ver"));
}

TEST_F(Reaping, WithdrawsTheRecordThenUnlocksThenReportsAFailure)
{
    child_ends_with(0x0c00);
    run_to_the_end();
    lines told = platform().story({"log", "system", "modlock_module_unlock", "mts_send"});
    told.erase(told.begin(), std::find(told.begin(), told.end(), "system(\"unlink /mnt/pss/bios_run_ver\")"));
    EXPECT_EQ(told, (lines{"system(\"unlink /mnt/pss/bios_run_ver\")",
                           "log(Un-mark in-progress exit=c00 retcode=4071000c)", "log(Unlocking module now)",
                           "modlock_module_unlock(129, 0x902)", "modlock_module_unlock(129, 0x501)",
                           notify("4071000c 00000009")}));
}

TEST_F(Reaping, RebuildsTheResultFromTheExitByteAlone)
{
    child_ends_with(0xff00);
    run_to_the_end();
    EXPECT_TRUE(ended("exit=ff00 retcode=407100ff"));
    EXPECT_EQ(sent(), lines{notify("407100ff 00000009")});
}

TEST_F(Reaping, TakesTheExitByteOfAKilledChild)
{
    child_ends_with(9);
    run_to_the_end();
    EXPECT_TRUE(ended("exit=9 retcode=0"));
    EXPECT_EQ(sent(), lines{notify("00000000 00000009")});
}

TEST_F(Reaping, WaitsOneSecondUntilTheChildHasEnded)
{
    platform().receive_times_out();
    child_ends_with(0);
    platform().receive_times_out();
    run_to_the_end();
    EXPECT_EQ(platform().calls("mts_recv"), (lines{waits(5), waits(1), waits(1), waits(5), waits(5)}));
}

TEST_F(Reaping, ReportsEachChildOnce)
{
    child_ends_with(0);
    platform().receive_times_out(5);
    run_to_the_end();
    EXPECT_EQ(sent().size(), 1u);
}

TEST_F(Reaping, IgnoresOtherProcesses)
{
    platform().receive_times_out();
    platform().child_ends(child + 1, 0x0900);
    platform().receive_times_out();
    run_to_the_end();
    EXPECT_EQ(report(), lines{});
    EXPECT_EQ(platform().calls("mts_recv").back(), waits(1));
}

TEST_F(Reaping, ComesBeforeTheMessageOfTheSamePass)
{
    platform().deliver(4795);
    platform().child_ends(child, 0);
    run_to_the_end();
    EXPECT_EQ(platform().story({"mts_send", "mts_respond_reject"}),
              (lines{notify("00000000 00000009"), "mts_respond_reject(7, 0, 0, #2, 0, 0)"}));
}

TEST_F(Reaping, ServesOtherRequestsMeanwhile)
{
    platform().deliver(4703, request({0, 0, 0, 2, 0, 0, 0x0b, 2}));
    child_ends_with(0);
    run_to_the_end();
    EXPECT_EQ(answers().at(1), "cmi_response([00000002 00000b02 00000000], 12, 7, #2, 0x0)");
    EXPECT_EQ(sent().size(), 1u);
}

TEST_F(Reaping, ReportsEvenWhenUnlockAndNotificationFail)
{
    platform().every_result("modlock_module_unlock", {-1, EPERM});
    platform().every_result("mts_send", {-1, ECONNREFUSED});
    child_ends_with(0);
    platform().receive_times_out();
    run_to_the_end();
    EXPECT_EQ(sent().size(), 1u);
}

TEST_F(Reaping, TellsARequestOfTheStandbySupervisorToItsRequesterAndUnlocksNothing)
{
    platform().every_result("sysmgr_cli_supstate_get", {2, 0});
    child_ends_with(0x0c00);
    run_to_the_end();
    EXPECT_EQ(report(), (lines{"system(\"unlink /mnt/pss/bios_run_ver\")",
                               "mts_send(7, 0x202, 94, 4793, [4071000c], 4, 0, 0, 0)"}));
    EXPECT_TRUE(ended("exit=c00 retcode=4071000c"));
}

// A fork that fails leaves -1 as the child's pid, which is also what waitpid returns without any child.
TEST_F(MessageLoop, ReportsTheEndOnEveryPassAfterAFailedFork)
{
    platform().next_result("fork", {-1, EAGAIN});
    start_request();
    platform().receive_times_out(2);
    fork_gives(child);
    start_request();
    platform().receive_times_out();
    platform().child_ends(0, 0);
    run_to_the_end();
    EXPECT_EQ(sent(), lines(3, notify("00000000 00000009")));
    EXPECT_EQ(platform().calls("modlock_module_unlock").size(), 2u);
}

TEST_F(MessageLoop, ReportsTheLastStatusAgainAfterAFailedFork)
{
    fork_gives(child);
    start_request();
    platform().receive_times_out();
    platform().child_ends(child, 0x0700);
    platform().next_result("fork", {-1, EAGAIN});
    start_request();
    platform().receive_times_out();
    run_to_the_end();
    EXPECT_EQ(sent(), lines(2, notify("40710007 00000009")));
}

// The whole way with a real child process.
TEST_F(MessageLoop, ReportsTheResultOfARealChild)
{
    platform().next_result("bios_daemon_child_process", {0x4071000c, 0});
    start_request();
    platform().receive_times_out();
    platform().when("mts_recv(7, {1, 0, 1,", [] {
        siginfo_t ended{};
        (void)::waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT);
    });
    run_to_the_end();
    EXPECT_EQ(sent(), lines{notify("4071000c 00000009")});
    EXPECT_TRUE(platform().logged("Un-mark in-progress exit=c00 retcode=4071000c"));
    const lines told = platform().story({"mts_bind", "bios_daemon_child_process", "exit", "syslog"});
    EXPECT_EQ(lines(told.begin() + 1, told.end()),
              (lines{"child: mts_bind(1, -1, {1, 0, 1024, 0, 0, 15}, \"BIOS upgrade child daemon\")",
                     "child: bios_daemon_child_process()", "child: exit(12)",
                     "child: syslog(0, \"biosd_on_exit: exit_arg: 12, arg; (nil)\\n\")"}));
    EXPECT_TRUE(platform().file_exists("/bootflash/bios_daemon.dbg"));
}

} // namespace
