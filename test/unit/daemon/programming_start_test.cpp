// Acceptance of a programming request: what is refused, what is recorded, what the child is given.
#include <cerrno>
#include <cstring>

#include "bios_daemon_state.h"
#include "daemon_requests.h"

extern "C" std::int32_t __wrap_bios_daemon_child_process(std::int32_t handle, std::uint32_t node, std::uint32_t sap,
                                                         const void *body, std::int32_t sup_state,
                                                         const char *image, std::uint32_t module,
                                                         std::uint32_t own_module, std::uint8_t image_type)
{
    platform().note("body(" + dumped(body, 240) + ")");
    platform().note("last_byte(" + dumped(static_cast<const char *>(body) + 528, 1) + ")");
    return static_cast<std::int32_t>(
        platform()
            .called("bios_daemon_child_process",
                    joined({std::to_string(handle), hexed(node), std::to_string(sap), std::to_string(sup_state),
                            quoted(image), std::to_string(module), std::to_string(own_module),
                            std::to_string(image_type)}))
            .value);
}

namespace
{

constexpr pid_t child = 4242;
constexpr char accepted[] = "cmi_response([00000000], 4, 7, #1, 0x0)";
constexpr char busy[] = "cmi_response([00000000], 4, 7, #1, 0x4071000a)";

class ProgrammingStart : public whole_daemon_test
{
protected:
    ProgrammingStart() { fork_gives(child); }

    static void is_standby() { platform().every_result("sysmgr_cli_supstate_get", {2, 0}); }
    static void has_card(std::uint16_t card_id)
    {
        platform().module_info_card_id = card_id;
        platform().insert_module(5, 1, card_id);
    }
    static std::string start_log(const std::string &rest) { return "uri_name=" + rest; }
    static bool forked() { return !platform().calls("fork").empty(); }
    static lines messages_of_the_request()
    {
        lines told = platform().logs();
        const auto start = std::find_if(
            told.begin(), told.end(), [](const std::string &message) { return message.compare(0, 3, "got") == 0; });
        return {start, told.end()};
    }
};

TEST_F(ProgrammingStart, IsAnsweredThenRecordedThenForked)
{
    start_request({.module = 9, .no_image = 1, .type = 3});
    run_to_the_end();
    lines told = platform().story({"log", "sysmgr_cli_supstate_get", "mts_payload_get", "mts_saddr_get",
                                   "modlock_module_lock", "cmi_response", "open", "fork", "dropped"});
    told.erase(told.begin(), std::find(told.begin(), told.end(), "sysmgr_cli_supstate_get(7)"));
    EXPECT_EQ(told,
              (lines{"sysmgr_cli_supstate_get(7)", "mts_payload_get(#1)",
                     "log(got MTS_OPC_BIOS_PROGRAMMING_START type(3))", "mts_saddr_get(#1)",
                     "log(uri_name=(null) def=1 rc=0)", "log(locking module here ...)",
                     "modlock_module_lock(129, 0x501, {1, 0, 0, 0x4071000a})",
                     "modlock_module_lock(129, 0x902, {1, 0, 0, 0x4071000a})", accepted,
                     "log(Mark in-progress here mod=9)", "open(\"/mnt/pss/bios_run_ver\", O_RDWR|O_CREAT|O_TRUNC)",
                     "log( file /mnt/pss/bios_run_ver Written successfully)", "fork()", "dropped(#1)"}));
}

TEST_F(ProgrammingStart, RecordsTheRunningVersion)
{
    start_request();
    run_to_the_end();
    std::string record = "v3.5.0(09/17/12)";
    record.resize(128, '\0');
    EXPECT_EQ(platform().read_file("/mnt/pss/bios_run_ver"), record);
}

TEST_F(ProgrammingStart, GoesOnWhenTheRunningVersionCannotBeRecorded)
{
    std::filesystem::remove_all(platform().path("/mnt/pss"));
    start_request();
    run_to_the_end();
    EXPECT_TRUE(platform().logged(" Error opening file /mnt/pss/bios_run_ver .. Running version will not be "
                                  "recorded for ISSU"));
    EXPECT_TRUE(forked());
}

TEST_F(ProgrammingStart, RemovesARecordThatCouldNotBeWritten)
{
    platform().when("open(\"/mnt/pss/bios_run_ver\"", [] { platform().next_result("write", {64, 0}); });
    start_request();
    run_to_the_end();
    const lines told = platform().story({"write", "system", "log", "fork"});
    EXPECT_EQ(
        lines(told.end() - 4, told.end()),
        (lines{"write(128)", "system(\"unlink /mnt/pss/bios_run_ver\")",
               "log( Error  writing to file /mnt/pss/bios_run_ver  .. Running version will not be recorded for "
               "ISSU)",
               "fork()"}));
}

TEST_F(ProgrammingStart, MapsTheUriWhenAnImageIsNamed)
{
    platform().mapped_uris["bootflash:system.bin"] = "/bootflash/system.bin";
    start_request({.no_image = 0, .uri = "bootflash:system.bin"});
    run_to_the_end();
    EXPECT_EQ(platform().calls("uri_map_targetfs_path_get"),
              lines{"uri_map_targetfs_path_get(\"bootflash:system.bin\")"});
    EXPECT_TRUE(platform().logged("uri_name=/bootflash/system.bin def=0 rc=0"));
    EXPECT_TRUE(forked());
}

TEST_F(ProgrammingStart, MapsNoUriWhenNoImageIsNamed)
{
    for (const std::uint32_t no_image : {1u, 0x01000000u, 0x80000000u}) {
        fork_gives(child);
        start_request({.no_image = no_image, .uri = "bootflash:system.bin"});
        platform().receive_times_out();
        platform().child_ends(child, 0);
    }
    run_to_the_end();
    EXPECT_EQ(platform().calls("uri_map_targetfs_path_get"), lines{});
    EXPECT_EQ(platform().calls("fork").size(), 3u);
}

TEST_F(ProgrammingStart, StillForksOnTheActiveSupervisorWhenTheUriCannotBeMapped)
{
    start_request({.no_image = 0, .uri = "nowhere:x"});
    run_to_the_end();
    EXPECT_TRUE(platform().logged("Unable to get tagetfs path for the URI"));
    EXPECT_TRUE(platform().logged("uri_name=(null) def=0 rc=40710005"));
    EXPECT_EQ(answers(), lines{accepted});
    EXPECT_TRUE(forked());
}

TEST_F(ProgrammingStart, IsRefusedOnAStandbySupervisorWhenTheUriCannotBeMapped)
{
    is_standby();
    start_request({.no_image = 0, .uri = "nowhere:x"});
    run_to_the_end();
    EXPECT_EQ(answers(), lines{"cmi_response([00000000], 4, 7, #1, 0x40710005)"});
    EXPECT_FALSE(forked());
    EXPECT_FALSE(platform().file_exists("/mnt/pss/bios_run_ver"));
    EXPECT_EQ(platform().calls("mts_recv").back(), "mts_recv(7, {1, 0, 5, 0, 0, 0, 0, 0, 0, 0})");
}

TEST_F(ProgrammingStart, IsRefusedWhenALockIsHeldByAnother)
{
    platform().next_result("modlock_module_lock", {-1, EBUSY});
    start_request();
    run_to_the_end();
    EXPECT_EQ(answers(), lines{busy});
    EXPECT_FALSE(forked());
    EXPECT_EQ(messages_of_the_request().back(), "(bios_daemon) ERROR: sup modlock failed err=16 rc=-1");
}

TEST_F(ProgrammingStart, TakesNoLockOnAStandbySupervisor)
{
    for (const int sup_state : {0, 2, -1, 3}) {
        fork_gives(child);
        platform().next_result("sysmgr_cli_supstate_get", {sup_state, 0});
        start_request();
    }
    run_to_the_end();
    EXPECT_EQ(platform().calls("modlock_module_lock"), lines{});
    EXPECT_THAT(answers(), testing::ElementsAre(accepted, "cmi_response([00000000], 4, 7, #2, 0x0)",
                                                "cmi_response([00000000], 4, 7, #3, 0x0)",
                                                "cmi_response([00000000], 4, 7, #4, 0x0)"));
    EXPECT_EQ(platform().calls("fork").size(), 4u);
}

TEST_F(ProgrammingStart, IsRefusedWhileAnotherIsInProgress)
{
    start_request({.module = 9});
    start_request({.module = 11}, {0x303, 95});
    platform().receive_times_out();
    platform().child_ends(child, 0x0400);
    run_to_the_end();
    EXPECT_EQ(answers(), (lines{accepted, "cmi_response([00000000], 4, 7, #2, 0x4071000a)"}));
    EXPECT_TRUE(platform().logged("Sorry busy ... in progress here "));
    EXPECT_EQ(platform().calls("fork").size(), 1u);
    EXPECT_EQ(platform().calls("modlock_module_lock").size(), 2u);
    EXPECT_EQ(sent(), lines{"mts_send(7, 0xfe000000, 0, 4792, [40710004 00000009], 8, 0, 0, 0)"});
}

TEST_F(ProgrammingStart, IsAcceptedAgainAfterTheEndOfTheFirst)
{
    start_request({.module = 9});
    platform().receive_times_out();
    platform().child_ends(child, 0);
    fork_gives(child + 1);
    start_request({.module = 5});
    platform().receive_times_out();
    platform().child_ends(child + 1, 0);
    run_to_the_end();
    EXPECT_EQ(sent(), (lines{"mts_send(7, 0xfe000000, 0, 4792, [00000000 00000009], 8, 0, 0, 0)",
                             "mts_send(7, 0xfe000000, 0, 4792, [00000000 00000005], 8, 0, 0, 0)"}));
}

TEST_F(ProgrammingStart, FollowsOnlyTheNewestChildOnAStandbySupervisor)
{
    is_standby();
    start_request({.module = 9}, {0x202, 94});
    fork_gives(child + 1);
    start_request({.module = 9}, {0x303, 95});
    platform().receive_times_out();
    platform().child_ends(child, 0x0400);
    platform().receive_times_out();
    platform().child_ends(child + 1, 0x0900);
    run_to_the_end();
    EXPECT_EQ(sent(), lines{"mts_send(7, 0x303, 95, 4793, [40710009], 4, 0, 0, 0)"});
}

TEST_F(ProgrammingStart, EndsTheDaemonWhenTheOwnCardIsUnknown)
{
    platform().next_result("get_card_module_info", {-1, EIO});
    start_request();
    const daemon_end end = run_daemon();
    EXPECT_EQ(end.exit_status, 0x30);
    EXPECT_EQ(platform().logs().back(), "get sw card id failed");
    EXPECT_EQ(answers(), lines{});
    EXPECT_FALSE(forked());
    EXPECT_EQ(platform().calls("sleep"), lines{"sleep(5)"});
}

// The five cards on which module 18 is meant whatever is asked.
class TarvikAStart : public ProgrammingStart, public testing::WithParamInterface<std::uint16_t>
{
protected:
    static lines register_writes() { return platform().calls("cctrl_write_reg3"); }
};

TEST_P(TarvikAStart, ProgramsModule18)
{
    has_card(GetParam());
    platform().insert_module(18, 2, 30);
    start_request({.module = 9});
    platform().receive_times_out();
    platform().child_ends(child, 0);
    run_to_the_end();
    const std::string id = std::to_string(GetParam());
    EXPECT_TRUE(platform().logged("main: *** tarvik-a hack: sup_id=" + id + ", module_num=9, my_module_num=5"));
    EXPECT_TRUE(platform().logged("main: *** tarvik-a hack: setting module_num to 18"));
    EXPECT_TRUE(platform().logged("Mark in-progress here mod=18"));
    EXPECT_EQ(platform().calls("modlock_module_lock").at(1),
              "modlock_module_lock(129, 0x1202, {1, 0, 0, 0x4071000a})");
    EXPECT_EQ(sent(), lines{"mts_send(7, 0xfe000000, 0, 4792, [00000000 00000012], 8, 0, 0, 0)"});
}

TEST_P(TarvikAStart, SelectsFlash0OnlyWhereTheBoardCan)
{
    has_card(GetParam());
    start_request();
    const std::string output = run_to_the_end();
    const bool can = GetParam() == 314 || GetParam() == 316 || GetParam() == 318;
    EXPECT_EQ(register_writes(), can ? lines{"cctrl_write_reg3(186, 2048)"} : lines{});
    EXPECT_EQ(output.find("card_id = ") != std::string::npos, can) << "no selection is to be tried";
}

TEST_P(TarvikAStart, GoesOnWhenTheFlashCannotBeSelected)
{
    has_card(GetParam());
    platform().every_result("cctrl_write_reg3", {-1, EIO});
    start_request();
    run_to_the_end();
    EXPECT_TRUE(forked());
}

INSTANTIATE_TEST_SUITE_P(EveryCard, TarvikAStart, testing::Values(183, 282, 314, 316, 318));

TEST_F(ProgrammingStart, SelectsTheFlashBeforeTheUriIsMappedAndTheLocksAreTaken)
{
    has_card(316);
    start_request({.no_image = 0, .uri = "nowhere:x"});
    run_to_the_end();
    EXPECT_EQ(platform().story({"cctrl_write_reg3", "uri_map_targetfs_path_get", "modlock_module_lock"}).at(0),
              "cctrl_write_reg3(186, 2048)");
}

TEST_F(ProgrammingStart, OnAnyOtherCardProgramsTheModuleAskedFor)
{
    start_request({.module = 9});
    const std::string output = run_to_the_end();
    EXPECT_TRUE(platform().logged("Mark in-progress here mod=9"));
    EXPECT_EQ(platform().calls("cctrl_write_reg3"), lines{});
    EXPECT_EQ(output.find("card_id = "), std::string::npos) << "no selection is to be tried";
    for (const std::string &message : platform().logs())
        EXPECT_EQ(message.find("tarvik-a hack"), std::string::npos);
}

TEST_F(ProgrammingStart, SurvivesEveryModuleNumber)
{
    for (const std::uint32_t module : {0u, 1u, 232u, 233u, 256u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        fork_gives(child);
        start_request({.module = module});
        platform().receive_times_out();
        platform().child_ends(child, 0x1200);
    }
    run_to_the_end();
    EXPECT_EQ(sent().size(), 8u);
    EXPECT_EQ(sent().back(), "mts_send(7, 0xfe000000, 0, 4792, [40710012 ffffffff], 8, 0, 0, 0)");
}

TEST_F(ProgrammingStart, CutsAnUnterminatedUriAtTheEndOfItsField)
{
    programming_request wanted{.no_image = 0};
    bytes payload = wanted.payload();
    std::fill(payload.begin() + 112 + 12, payload.begin() + 112 + 240, std::uint8_t{'u'});
    std::fill(payload.begin() + 112 + 240, payload.end(), std::uint8_t{'p'});
    platform().deliver(4791, payload);
    run_to_the_end();
    EXPECT_THAT(platform().calls("uri_map_targetfs_path_get").at(0),
                testing::AnyOf(line_of("uri_map_targetfs_path_get", quoted(std::string(227, 'u').c_str())),
                               line_of("uri_map_targetfs_path_get", quoted(std::string(228, 'u').c_str()))));
}

TEST_F(ProgrammingStart, TakesAMessageWithoutBodyForARequestOfModule0)
{
    platform().deliver(4791);
    run_to_the_end();
    EXPECT_TRUE(platform().logged("got MTS_OPC_BIOS_PROGRAMMING_START type(0)"));
    EXPECT_TRUE(platform().logged("Unable to get tagetfs path for the URI"));
}

// The forked child's side: fork returns 0 and the test's process goes on as the child.
class ForkedChild : public whole_daemon_test
{
protected:
    ForkedChild()
    {
        fork_gives(0);
        message_left_to_parent = true;
        platform().mapped_uris["bootflash:system.bin"] = "/bootflash/system.bin";
    }
    const programming_request named{.module = 9, .no_image = 0, .uri = "bootflash:system.bin", .type = 2};
};

TEST_F(ForkedChild, BindsItsEndpointDoesTheRequestAndExitsWithTheLowByte)
{
    platform().next_result("bios_daemon_child_process", {0x40710108, 0});
    start_request(named);
    EXPECT_EQ(run_daemon().exit_status, 8);
    lines told = platform().story({"fork", "mts_bind", "log", "bios_daemon_child_process", "exit", "syslog"});
    told.erase(told.begin(), std::find(told.begin(), told.end(), "fork()"));
    EXPECT_EQ(told,
              (lines{"fork()", "child: mts_bind(1, -1, {1, 0, 1024, 0, 0, 15}, \"BIOS upgrade child daemon\")",
                     "child: log(From a forked child ..., my_module_num=5, programming_mod_num=9)",
                     "child: bios_daemon_child_process(8, 0x202, 94, 1, \"/bootflash/system.bin\", 9, 5, 2)",
                     "child: log(Child returned 40710108 and exiting...)", "child: exit(8)",
                     "child: syslog(0, \"biosd_on_exit: exit_arg: 8, arg; (nil)\\n\")"}));
}

TEST_F(ForkedChild, IsGivenTheRequestAsItCame)
{
    start_request(named);
    EXPECT_EQ(run_daemon().exit_status, 0);
    EXPECT_EQ(platform().calls("body"), lines{"child: body(" + dumped(named.body().data(), 240) + ")"});
    EXPECT_EQ(platform().calls("last_byte"), lines{"child: last_byte([02])"});
}

TEST_F(ForkedChild, IsGivenNoImageAndTheStateOfAStandbySupervisor)
{
    platform().every_result("sysmgr_cli_supstate_get", {2, 0});
    start_request({.module = 5});
    EXPECT_EQ(run_daemon().exit_status, 0);
    EXPECT_EQ(platform().calls("bios_daemon_child_process"),
              lines{"child: bios_daemon_child_process(8, 0x202, 94, 2, null, 5, 5, 0)"});
}

TEST_F(ForkedChild, IsGivenNoImageForAUriThatCannotBeMapped)
{
    start_request({.module = 9, .no_image = 0, .uri = "nowhere:x"});
    EXPECT_EQ(run_daemon().exit_status, 0);
    EXPECT_EQ(platform().calls("bios_daemon_child_process"),
              lines{"child: bios_daemon_child_process(8, 0x202, 94, 1, null, 9, 5, 0)"});
}

TEST_F(ForkedChild, IsGivenModule18OnATarvikASupervisor)
{
    platform().module_info_card_id = 282;
    start_request(named);
    EXPECT_EQ(run_daemon().exit_status, 0);
    EXPECT_EQ(platform().calls("bios_daemon_child_process"),
              lines{"child: bios_daemon_child_process(8, 0x202, 94, 1, \"/bootflash/system.bin\", 18, 5, 2)"});
}

TEST_F(ForkedChild, ExitsWithStatus16WhenItsEndpointCannotBeBound)
{
    platform().when("fork", [] { platform().next_result("mts_bind", {-1, EADDRINUSE}); });
    start_request(named);
    EXPECT_EQ(run_daemon().exit_status, 16);
    EXPECT_EQ(platform().calls("bios_daemon_child_process"), lines{});
    const lines told = platform().story({"fork", "log", "exit"});
    EXPECT_EQ(lines(told.end() - 2, told.end()), (lines{"fork()", "child: exit(16)"}));
}

} // namespace
