// What the exit handler leaves behind.
#include "exit_handler.h"

#include "daemon_test.h"

namespace
{

class ExitHandler : public daemon_test
{
protected:
    static std::string trace() { return platform().read_file("/bootflash/bios_daemon.dbg").value_or("no file"); }
    static lines ending() { return platform().story({"syslog", "sleep"}); }

    const lines usual_ending{"syslog(0, \"biosd_on_exit: exit_arg: 16, arg; (nil)\\n\")", "sleep(5)"};
};

TEST_F(ExitHandler, WritesTheStackTraceThenLogsThenPauses)
{
    platform().frame_texts = {"main [0x1]", "start [0x2]"};
    biosd_on_exit(16, nullptr);
    EXPECT_EQ(trace(), "dumping stack trace\nmain [0x1] start [0x2] \n");
    EXPECT_EQ(ending(), usual_ending);
}

TEST_F(ExitHandler, TakesAtMost250Frames)
{
    biosd_on_exit(16, nullptr);
    EXPECT_EQ(platform().calls("backtrace"), lines{"backtrace(250)"});
}

TEST_F(ExitHandler, WritesNullForAFrameWithoutText)
{
    platform().frame_texts = {"main", std::nullopt, "start"};
    biosd_on_exit(16, nullptr);
    EXPECT_EQ(trace(), "dumping stack trace\nmain NULL start \n");
}

TEST_F(ExitHandler, WritesARealTraceOfItsCaller)
{
    biosd_on_exit(16, nullptr);
    EXPECT_THAT(trace(), testing::StartsWith("dumping stack trace\n"));
    EXPECT_THAT(trace(), testing::HasSubstr("[0x"));
    EXPECT_THAT(trace(), testing::EndsWith(" \n"));
}

TEST_F(ExitHandler, AppendsToTheTracesOfEarlierExits)
{
    platform().write_file("/bootflash/bios_daemon.dbg", "an older trace\n");
    platform().frame_texts = {"main"};
    biosd_on_exit(1, nullptr);
    biosd_on_exit(2, nullptr);
    EXPECT_EQ(trace(), "an older trace\ndumping stack trace\nmain \ndumping stack trace\nmain \n");
}

TEST_F(ExitHandler, StillLogsAndPausesWithoutATrace)
{
    platform().next_result("backtrace_symbols", {-1, ENOMEM});
    biosd_on_exit(16, nullptr);
    EXPECT_THAT(trace(), testing::AnyOf("", "no file"));
    EXPECT_EQ(ending(), usual_ending);
}

TEST_F(ExitHandler, StillLogsAndPausesWithoutTheFile)
{
    std::filesystem::remove_all(platform().path("/bootflash"));
    biosd_on_exit(16, nullptr);
    EXPECT_EQ(ending(), usual_ending);
}

TEST_F(ExitHandler, LogsTheExitStatusAndTheArgument)
{
    biosd_on_exit(-1, reinterpret_cast<void *>(0x1234));
    EXPECT_EQ(platform().calls("syslog"), lines{"syslog(0, \"biosd_on_exit: exit_arg: -1, arg; 0x1234\\n\")"});
}

} // namespace
