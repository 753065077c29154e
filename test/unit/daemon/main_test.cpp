// Start-up of the daemon: its order, and what each failure ends it with.
#include <cerrno>

#include "bios_flash_entry.h"
#include "boot_flash_report.h"
#include "daemon_requests.h"

namespace
{

class StartUp : public whole_daemon_test
{
protected:
    // Runs the daemon, which has to end by itself; the last line of its record says how.
    int exit_status()
    {
        end = run_daemon();
        EXPECT_FALSE(end.script_ended);
        EXPECT_EQ(end.killed_by, "");
        return end.exit_status;
    }
    static std::string ending()
    {
        const lines returned = platform().story({"exit"});
        for (const std::string &line : platform().record())
            if (line.compare(0, 14, "main returned ") == 0)
                return line;
        return returned.empty() ? "none" : returned.back();
    }
    static void expect_exit_handler(int status)
    {
        EXPECT_EQ(platform().story({"syslog", "sleep"}),
                  (lines{"syslog(0, \"biosd_on_exit: exit_arg: " + std::to_string(status) + ", arg; (nil)\\n\")",
                         "sleep(5)"}));
    }
    static lines messages_but_the_card_table()
    {
        lines told = platform().logs();
        const auto is_of_the_table = [](const std::string &message) {
            return message.size() > 2 && message.compare(message.size() - 2, 2, "\\n") == 0;
        };
        told.erase(std::remove_if(told.begin(), told.end(), is_of_the_table), told.end());
        return told;
    }
    daemon_end end;
};

TEST_F(StartUp, TakesItsStepsInOrder)
{
    run_to_the_end();
    EXPECT_EQ(
        platform().story({"on_exit", "get_platform_info", "modlock_init", "mts_bind",
                          "pfm_get_all_modules_in_chassis", "get_card_module_info",
                          "get_ibexpeak_tarvik_a_bios_flash_version", "sdwrap_dbg_init", "sdwrap_sys_init_helper",
                          "vesk_syslog", "mts_recv"}),
        (lines{"on_exit(handler, null)", "get_platform_info()", "modlock_init()",
               "mts_bind(1, 1010, {1, 0, 1024, 0, 0, 15}, \"BIOS upgrade daemon\")",
               "pfm_get_all_modules_in_chassis(7, 232)", "get_ibexpeak_tarvik_a_bios_flash_version(0)",
               "sdwrap_dbg_init(7, \"bios_daemon\", \"BIOS Daemon\", 3, {\"Bios Daemon Errors\", \"Bios Daemon "
               "Warnings\", \"Bios Daemon Info\"}, 0, 0, 0)",
               "sdwrap_sys_init_helper(7, \"bios_daemon\", \"BIOS Daemon\", 904, 0, 0, 0, bios_daemon)",
               "mts_recv(7, {1, 0, 5, 0, 0, 0, 0, 0, 0, 0})"}));
}

TEST_F(StartUp, LogsItsSteps)
{
    run_to_the_end();
    EXPECT_EQ(messages_but_the_card_table(),
              (lines{"Started Daemon", " sw_card_id 271 my_module_num 5", " sw_card_id 271 my_module_num 5",
                     "Boot from Primary BIOS Flash", "Going to infinite-loop for MTS processing"}));
    const lines told = platform().story({"log", "fflush", "mts_recv"});
    EXPECT_EQ(lines(told.end() - 3, told.end()),
              (lines{"log(Going to infinite-loop for MTS processing)", "fflush(stdout)",
                     "mts_recv(7, {1, 0, 5, 0, 0, 0, 0, 0, 0, 0})"}));
}

TEST_F(StartUp, BuildsTheCardsTableBetweenTheTwoCardIdMessages)
{
    run_to_the_end();
    lines told = platform().logs();
    told.resize(4);
    EXPECT_EQ(told, (lines{"Started Daemon", " sw_card_id 271 my_module_num 5", "Card id is = 271 15\\n",
                           "Card tbl family is 30 \\n"}));
}

TEST_F(StartUp, PrintsItsNameFirst)
{
    end = run_daemon();
    EXPECT_THAT(end.output, testing::StartsWith("sup: main function: BIOS programming"));
}

TEST_F(StartUp, ReportsThePrimaryFlashWhenSyslogsLevelLetsItPass)
{
    platform().when("sdwrap_sys_init_helper", [] { syslog_fac_LOG_BIOS_DAEMON.current_level = 5; });
    run_to_the_end();
    EXPECT_EQ(platform().story({"vesk_syslog", "log"}).at(platform().story({"vesk_syslog", "log"}).size() - 2),
              "vesk_syslog(5, \"<<%%%s-%d-BIOS_DAEMON_PRI_BOOT>> System booted from Primary BIOS Flash\", "
              "\"BIOS_DAEMON\", 5)");
}

TEST_F(StartUp, EndsWhenTheExitHandlerCannotBeInstalled)
{
    platform().next_result("on_exit", {-1, ENOMEM});
    EXPECT_EQ(exit_status(), 255);
    EXPECT_EQ(ending(), "exit(-1)");
    EXPECT_EQ(platform().logs(), lines{"Error when installing on_exit() function"});
    EXPECT_EQ(platform().calls("get_platform_info"), lines{});
}

TEST_F(StartUp, EndsWhenThePlatformIsUnknown)
{
    platform().next_result("get_platform_info", {-1, ENODEV});
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(ending(), "main returned 0x1");
    EXPECT_EQ(platform().logs(), lines{"Error: in getting platform info err=19"});
    EXPECT_EQ(platform().calls("modlock_init"), lines{});
    expect_exit_handler(1);
}

TEST_F(StartUp, IgnoresWhatTheLockClientReturns)
{
    platform().next_result("modlock_init", {-1, EIO});
    run_to_the_end();
}

TEST_F(StartUp, EndsInSilenceWhenItsEndpointCannotBeBound)
{
    platform().next_result("mts_bind", {-1, EADDRINUSE});
    EXPECT_EQ(exit_status(), 0x10);
    EXPECT_EQ(ending(), "main returned 0x40710010");
    EXPECT_EQ(platform().logs(), lines{});
    EXPECT_EQ(platform().calls("pfm_get_all_modules_in_chassis"), lines{});
    expect_exit_handler(0x40710010);
}

TEST_F(StartUp, FallsBackToTheCardsOwnInformation)
{
    platform().insert_module(5, 1, 0);
    run_to_the_end();
    EXPECT_EQ(messages_but_the_card_table(),
              (lines{"Started Daemon", " sw_card_id 0 my_module_num 5",
                     "main: pfm_get_all_modules_in_chassis() failed to get sw_card_id for sup_local_slot, trying "
                     "with get_sw_card_id() = 271",
                     " sw_card_id 271 my_module_num 5", "Boot from Primary BIOS Flash",
                     "Going to infinite-loop for MTS processing"}));
}

TEST_F(StartUp, FallsBackWhenTheModuleTableCannotBeRead)
{
    platform().next_result("pfm_get_all_modules_in_chassis", {-1, EIO});
    run_to_the_end();
    EXPECT_TRUE(platform().logged(" sw_card_id 0 my_module_num 5"));
    EXPECT_TRUE(platform().logged(" sw_card_id 271 my_module_num 5"));
}

TEST_F(StartUp, EndsWhenNobodyKnowsTheCard)
{
    platform().insert_module(5, 1, 0);
    platform().next_result("get_card_module_info", {-1, EIO});
    EXPECT_EQ(exit_status(), 0x30);
    EXPECT_EQ(ending(), "main returned 0x40710030");
    EXPECT_EQ(platform().logs(), (lines{"Started Daemon", " sw_card_id 0 my_module_num 5",
                                        "Error in getting module information\\n", "get sw card id failed"}));
    EXPECT_EQ(platform().calls("mts_recv"), lines{});
    expect_exit_handler(0x40710030);
}

TEST_F(StartUp, ReadsNoModuleRecordForANumberThatNoModuleHas)
{
    for (const int module : {0, 233, 255}) {
        platform().module_number = static_cast<std::uint8_t>(module);
        run_to_the_end();
        EXPECT_TRUE(platform().logged(" sw_card_id 0 my_module_num " + std::to_string(module)));
        EXPECT_TRUE(platform().logged(" sw_card_id 271 my_module_num " + std::to_string(module)));
    }
}

TEST_F(StartUp, EndsWhenTheCardHasNoRows)
{
    platform().insert_module(5, 1, 9998);
    EXPECT_EQ(exit_status(), 0x12);
    EXPECT_EQ(ending(), "main returned 0x40710012");
    const lines told = platform().logs();
    EXPECT_EQ(told.at(told.size() - 2), " sw_card_id 9998 my_module_num 5");
    EXPECT_THAT(told.back(), testing::MatchesRegex("Error: getting card id tbl info err=[0-9]+"));
    expect_exit_handler(0x40710012);
}

TEST_F(StartUp, EndsWhenTheRowsCannotBeAllocated)
{
    platform().fail_allocation_of(sizeof(bios_card_table) + sizeof(bios_flash_entry));
    EXPECT_EQ(exit_status(), 0x12);
    EXPECT_EQ(platform().logs().back(), "Error: getting card id tbl info err=12");
}

TEST_F(StartUp, EndsWhenTheWorkAreaCannotBeAllocated)
{
    platform().fail_allocation_of(128);
    EXPECT_EQ(exit_status(), 0x28);
    EXPECT_EQ(ending(), "main returned 0x40710028");
    EXPECT_EQ(platform().logs().back(), "Error: flash instance is null err=12");
    EXPECT_EQ(platform().calls("sdwrap_dbg_init"), lines{});
    expect_exit_handler(0x40710028);
}

TEST_F(StartUp, EndsWhenTheDebugModuleCannotBeRegistered)
{
    platform().next_result("sdwrap_dbg_init", {-7, EIO});
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(platform().logs().back(), "ERROR: in sdwrap_dbg_init - -7 err=5");
    EXPECT_EQ(platform().calls("sdwrap_sys_init_helper"), lines{});
    expect_exit_handler(1);
}

TEST_F(StartUp, EndsWhenTheSyslogFacilityCannotBeRegistered)
{
    platform().next_result("sdwrap_sys_init_helper", {3, EIO});
    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(platform().logs().back(), "ERROR: in sdwrap_sys_init - 3 err=5");
    EXPECT_EQ(platform().calls("mts_recv"), lines{});
    expect_exit_handler(1);
}

} // namespace
