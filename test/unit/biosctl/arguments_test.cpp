// The built program's command line: what it refuses, and how it tells.
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "biosctl_chassis.h"

namespace
{

int exit_code_of(const std::vector<std::string> &words)
{
    return biosctl_run(words).exit_code();
}

} // namespace

TEST(Arguments, WhatIsNotUnderstoodIsAUsageError)
{
    const test_chassis chassis;
    const std::vector<std::vector<std::string>> lines{
        {},
        {"frobnicate"},
        {"program"},
        {"program", "5", "6"},
        {"program", "0"},
        {"program", "233"},
        {"program", "-1"},
        {"program", "5x"},
        {"program", ""},
        {"program", "4294967301"},
        {"program", "0x5"},
        {"program", "5", "--image", ""},
        {"program", "5", "--image", std::string(228, 'u')},
        {"program", "5", "--type", "256"},
        {"program", "5", "--via", "0"},
        {"program", "5", "--timeout", "0"},
        {"program", "5", "--frob"},
        {"lock"},
        {"lock", "233"},
        {"lock", "5", "--timeout", "0"},
        {"lock", "5", "--timeout", "604801"},
        {"lock", "5", "--via", "28"},
        {"lock", "5", "--force"},
        {"unlock", "5", "--image", "bootflash:a"},
        {"explain", "0x1g"},
        {"explain", "0x140710009"},
    };
    for (std::vector<std::string> line : lines) {
        const std::string shown = line.empty() ? "(nothing)" : line.back();
        line.insert(line.begin(), {"--dir", chassis.path()});
        biosctl_run run(line);
        EXPECT_EQ(run.exit_code(), 64) << shown;
        EXPECT_EQ(run.out(), "") << shown;
        EXPECT_NE(run.err().find("--help"), std::string::npos) << shown;
    }
}

TEST(Arguments, AModuleThatTheChassisDoesNotHaveIsNotFound)
{
    const test_chassis chassis;
    biosctl_run run({"--dir", chassis.path(), "program", "7"});
    EXPECT_EQ(run.exit_code(), 3);
    EXPECT_NE(run.err().find("no module 7"), std::string::npos);
    EXPECT_EQ(exit_code_of({"--dir", chassis.path(), "lock", "7"}), 3);
    EXPECT_EQ(exit_code_of({"--dir", chassis.path(), "program", "5", "--via", "7"}), 3);
}

TEST(Arguments, LeadingZerosDoNotMakeAnOctalNumber)
{
    const test_chassis chassis;
    biosctl_run run({"--dir", chassis.path(), "program", "010"});
    EXPECT_EQ(run.exit_code(), 3);
    EXPECT_NE(run.err().find("no module 10 "), std::string::npos) << run.err();
}

TEST(Arguments, AChassisThatIsNotThereIsNotFound)
{
    biosctl_run run({"--dir", "/nonexistent/chassis", "program", "5"});
    EXPECT_EQ(run.exit_code(), 3);
    EXPECT_NE(run.err().find("/nonexistent/chassis"), std::string::npos);
    EXPECT_NE(run.err().find("next: "), std::string::npos);
}

TEST(Arguments, WithoutAnActiveSupervisorItSaysSo)
{
    const test_chassis chassis;
    chassis.insert(27, 1, 206, 2);
    biosctl_run run({"--dir", chassis.path(), "program", "5"});
    EXPECT_EQ(run.exit_code(), 1);
    EXPECT_NE(run.err().find("no supervisor"), std::string::npos);
    EXPECT_NE(run.err().find("--via"), std::string::npos);
}

TEST(Arguments, ADaemonThatIsNotUpIsAFailure)
{
    const test_chassis chassis;
    biosctl_run run({"--dir", chassis.path(), "program", "5"});
    EXPECT_EQ(run.exit_code(), 1);
    EXPECT_NE(run.err().find("slot 27: no daemon serves there"), std::string::npos) << run.err();
}

TEST(Arguments, JsonErrorsAreAloneOnStandardOutput)
{
    const test_chassis chassis;
    const std::vector<std::pair<std::vector<std::string>, int>> lines{
        {{"--json", "--dir", chassis.path(), "program", "0"}, 64},
        {{"program", "0", "--json"}, 64},
        {{"--json"}, 64},
        {{"--dir", chassis.path(), "program", "7", "--json"}, 3},
        {{"--json", "--dir", chassis.path(), "program", "5"}, 1},
    };
    for (const auto &[line, code] : lines) {
        biosctl_run run(line);
        EXPECT_EQ(run.exit_code(), code);
        const auto answer = nlohmann::json::parse(run.out(), nullptr, false);
        ASSERT_TRUE(answer.is_object()) << run.out();
        EXPECT_EQ(answer["exit_code"], code);
        EXPECT_NE(answer["error"], "");
        EXPECT_EQ(run.err(), "");
    }
}

TEST(Arguments, HelpListsTheExitCodes)
{
    biosctl_run run({"--help"});
    EXPECT_EQ(run.exit_code(), 0);
    for (const char *line :
         {"0    done", "1    failed", "2    nothing to do", "4    busy or locked", "64   usage error"})
        EXPECT_NE(run.out().find(line), std::string::npos) << line;
}

TEST(Arguments, ExplainTellsWhatACodeMeansWithoutAChassis)
{
    biosctl_run run({"explain", "0x40710009"});
    EXPECT_EQ(run.exit_code(), 0);
    EXPECT_NE(run.out().find("erase_failed"), std::string::npos);
    EXPECT_EQ(exit_code_of({"explain", "1081147401"}), 0);
    EXPECT_EQ(exit_code_of({"explain", "0x1"}), 3);
}
