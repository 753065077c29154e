// Whether a command-line programming tool is running.
#include "bios_cmd_check.h"

#include <cerrno>

#include "bios_daemon_state.h"
#include "daemon_test.h"

namespace
{

class BiosCmdCheck : public daemon_test
{
protected:
    BiosCmdCheck() { bios_cmd_program_in_progress = 77; }
    ~BiosCmdCheck() override { bios_cmd_program_in_progress = 0; }

    static std::uint32_t flag_after(const std::string &output)
    {
        platform().command_outputs.push_back(output);
        (void)bios_cmd_program_in_progress_check();
        return bios_cmd_program_in_progress;
    }
};

TEST_F(BiosCmdCheck, SetsTheFlagWhenAProcessIsListed)
{
    EXPECT_EQ(flag_after("1234\n"), 1u);
    EXPECT_EQ(platform().story({"popen", "log", "pclose"}),
              (lines{"popen(\"pgrep bios_cmd\", \"r\")", "log(pid of the bios_cmd 1234 \\n )", "pclose()"}));
}

TEST_F(BiosCmdCheck, ReadsTheFirstLineOfSeveral)
{
    EXPECT_EQ(flag_after("17\n18\n"), 1u);
    EXPECT_TRUE(platform().logged("pid of the bios_cmd 17 \\n "));
}

TEST_F(BiosCmdCheck, ClearsTheFlagWhenNothingIsListed)
{
    EXPECT_EQ(flag_after(""), 0u);
    EXPECT_EQ(platform().story({"popen", "log", "pclose"}),
              (lines{"popen(\"pgrep bios_cmd\", \"r\")", "log(pid of the bios_cmd is null )", "pclose()"}));
}

TEST_F(BiosCmdCheck, SetsTheFlagForAnyLine)
{
    EXPECT_EQ(flag_after("\n"), 1u);
    EXPECT_TRUE(platform().logged("pid of the bios_cmd 0 \\n "));
    EXPECT_EQ(flag_after("no number"), 1u);
}

TEST_F(BiosCmdCheck, ReadsAtMost127BytesOfALine)
{
    EXPECT_EQ(flag_after("12" + std::string(500, ' ') + "\n"), 1u);
    EXPECT_TRUE(platform().logged("pid of the bios_cmd 12 \\n "));
}

TEST_F(BiosCmdCheck, LeavesTheFlagWhenTheCommandCannotBeRun)
{
    platform().next_result("popen", {-1, ENOMEM});
    (void)bios_cmd_program_in_progress_check();
    EXPECT_EQ(bios_cmd_program_in_progress, 77u);
    EXPECT_EQ(platform().logs(), lines{});
    EXPECT_EQ(platform().calls("pclose"), lines{});
}

} // namespace
