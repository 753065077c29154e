// The daemon's diagnostics: history event, debug print and standard output of one message.
#include "bios_log.h"

#include <cerrno>

#include "daemon_test.h"

namespace
{

using BiosLog = daemon_test;

TEST_F(BiosLog, RecordsAHistoryEventWithFileLineAndMessage)
{
    bios_log("main.cpp", 42, "Mark in-progress here mod=%d", 18);
    EXPECT_EQ(platform().calls("sdwrap_hist_event_subtype_check"),
              lines{"sdwrap_hist_event_subtype_check(0x730000, 102)"});
    EXPECT_EQ(platform().calls("sdwrap_hist_event"),
              lines{"sdwrap_hist_event(0x730000, 40, \"main.cpp:42 Mark in-progress here mod=18\")"});
}

TEST_F(BiosLog, RecordsNoEventWhenTheSubtypeIsNotRecorded)
{
    platform().next_result("sdwrap_hist_event_subtype_check", {1, 0});
    bios_log("main.cpp", 42, "Started Daemon");
    EXPECT_EQ(platform().calls("sdwrap_hist_event"), lines{});
    EXPECT_EQ(printed(), "main.cpp:42: Started Daemon\n");
}

TEST_F(BiosLog, PrintsNoDebugMessageWhileTheCategoryIsOff)
{
    bios_log("main.cpp", 42, "Started Daemon");
    EXPECT_EQ(platform().calls("sdwrap_chk_int"), lines{"sdwrap_chk_int(102, 0, 0, 1)"});
    EXPECT_EQ(platform().calls("buginf"), lines{});
}

TEST_F(BiosLog, PrintsADebugMessageOfTheSameFormWhenTheCategoryIsOn)
{
    platform().next_result("sdwrap_chk_int", {1, 0});
    bios_log("main.cpp", 42, "rc=%d", -5);
    EXPECT_EQ(platform().calls("buginf"), lines{"buginf(main.cpp:42 rc=-5)"});
}

TEST_F(BiosLog, RecordsFirstThenPrintsTheDebugMessage)
{
    platform().next_result("sdwrap_chk_int", {1, 0});
    bios_log("main.cpp", 42, "x");
    EXPECT_EQ(platform().story({"sdwrap_hist_event_subtype_check", "log", "sdwrap_chk_int", "buginf"}),
              (lines{"sdwrap_hist_event_subtype_check(0x730000, 102)", "log(x)", "sdwrap_chk_int(102, 0, 0, 1)",
                     "buginf(main.cpp:42 x)"}));
}

TEST_F(BiosLog, EndsEachPrintedMessageWithExactlyOneLineBreak)
{
    bios_log("a.cpp", 1, "without");
    bios_log("a.cpp", 2, "with\n");
    bios_log("a.cpp", 3, "break and blank \n ");
    EXPECT_EQ(printed(), "a.cpp:1: without\na.cpp:2: with\na.cpp:3: break and blank \n \n");
}

TEST_F(BiosLog, PrintsAnEmptyMessage)
{
    bios_log("a.cpp", 1, "%s", "");
    EXPECT_EQ(printed(), "a.cpp:1: \n");
}

TEST_F(BiosLog, CutsAMessageAt255Characters)
{
    const std::string text(300, 'x');
    bios_log("a.cpp", 1, "%s", text.c_str());
    EXPECT_EQ(platform().logs(), lines{std::string(255, 'x')});
    EXPECT_EQ(printed(), "a.cpp:1: " + std::string(255, 'x') + "\n");
}

TEST_F(BiosLog, TakesPercentSignsOfAnArgumentAsText)
{
    platform().next_result("sdwrap_chk_int", {1, 0});
    bios_log("a.cpp", 1, "uri_name=%s", "%n%s%d");
    EXPECT_EQ(platform().logs(), lines{"uri_name=%n%s%d"});
    EXPECT_EQ(platform().calls("buginf"), lines{"buginf(a.cpp:1 uri_name=%n%s%d)"});
    EXPECT_EQ(printed(), "a.cpp:1: uri_name=%n%s%d\n");
}

TEST_F(BiosLog, LeavesErrnoAsItWas)
{
    platform().next_result("sdwrap_hist_event", {-1, EIO});
    errno = EBUSY;
    bios_log("a.cpp", 1, "x");
    EXPECT_EQ(errno, EBUSY);
}

TEST_F(BiosLog, NamesTheCallersFileWithoutFolders)
{
    BIOS_LOG("hello %d", 7);
    const int line = __LINE__ - 1;
    EXPECT_EQ(printed(), "bios_log_test.cpp:" + std::to_string(line) + ": hello 7\n");
}

} // namespace
