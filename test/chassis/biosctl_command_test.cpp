// The operator's command line against real daemons: what it says, and its exit codes.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>

#include <nlohmann/json.hpp>

#include "chassis_fixture.h"

namespace
{

constexpr int DONE = 0;
constexpr int FAILED = 1;
constexpr int NOT_FOUND = 3;
constexpr int BUSY = 4;
constexpr int USAGE = 64;
constexpr int INTERRUPTED = 130;

class BiosctlCommand : public chassis_test
{
protected:
    void SetUp() override
    {
        insert({.slot = 1});
        up();
    }
};

bool says(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

unsigned lines_with_percent(const std::string &text)
{
    std::istringstream lines(text);
    unsigned count = 0;
    for (std::string line; std::getline(lines, line);)
        count += says(line, "% ") ? 1U : 0U;
    return count;
}

} // namespace

TEST_F(BiosctlCommand, TellsSuccessAndProgressLines)
{
    const finished_program finished = biosctl({"program", "1"});
    EXPECT_EQ(finished.exit_code, DONE) << finished.errors;
    EXPECT_TRUE(says(finished.output, "module 1: programmed and verified")) << finished.output;
    EXPECT_TRUE(says(finished.errors, "module 1: 0% ")) << finished.errors;
    EXPECT_TRUE(says(finished.errors, "module 1: 100% ")) << finished.errors;
    EXPECT_GE(lines_with_percent(finished.errors), 5U) << finished.errors;
    EXPECT_FALSE(says(finished.errors, "\r")) << "a bar, though this is no terminal";
    EXPECT_EQ(flash_of(1) == new_image().bytes, true);
    expect_tidy(1);
}

TEST_F(BiosctlCommand, TellsFailureWithCodeAndStateOfTheFlash)
{
    protect(1, "0\n");
    const finished_program finished = biosctl({"program", "1"});
    EXPECT_EQ(finished.exit_code, FAILED);
    EXPECT_TRUE(says(finished.errors, "0x40710021")) << finished.errors;
    EXPECT_TRUE(says(finished.errors, "flash: not touched")) << finished.errors;
    EXPECT_EQ(finished.output, "");
    expect_tidy(1);
}

TEST_F(BiosctlCommand, ProgramsNothingInThePlaceOfAnImageThatIsNotThere)
{
    for (const auto &[image, code] : {std::pair("bootflash:missing.img", 3),
                                      {"/bootflash/missing.img", 3},
                                      {"usb:x", 64},
                                      {"/bootflash/../etc/passwd", 64}}) {
        const finished_program finished = biosctl({"program", "1", "--image", image});
        EXPECT_EQ(finished.exit_code, code) << image << finished.errors;
        EXPECT_FALSE(says(finished.output + finished.errors, "programmed and verified"));
        EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    }
}

TEST_F(BiosctlCommand, ProgramsTheImageThatIsNamedByItsPath)
{
    make_system_image(on_bootflash(1, "s.bin"), 90, image("9.9"));
    const finished_program finished = biosctl({"program", "1", "--image", "/bootflash/s.bin"});
    EXPECT_EQ(finished.exit_code, 0) << finished.errors;
    EXPECT_TRUE(says(finished.output, "/bootflash/s.bin: v9.9.0")) << finished.output;
    EXPECT_TRUE(says(finished.output, "was v")) << finished.output;
    EXPECT_EQ(flash_of(1) == image("9.9").bytes, true);
    const finished_program again = biosctl({"program", "1", "--image", "/bootflash/s.bin"});
    EXPECT_EQ(again.exit_code, 2);
    EXPECT_TRUE(says(again.errors, "already in the flash, nothing to do")) << again.errors;
    const finished_program older = biosctl({"program", "1"});
    EXPECT_EQ(older.exit_code, FAILED);
    EXPECT_TRUE(says(older.errors, "0x40710049 (older)")) << older.errors;
    EXPECT_EQ(flash_of(1) == image("9.9").bytes, true);
    EXPECT_EQ(biosctl({"program", "1", "--force=older", "--dry-run"}).exit_code, 0);
    EXPECT_EQ(flash_of(1) == image("9.9").bytes, true);
    EXPECT_EQ(biosctl({"program", "1", "--force=older"}).exit_code, 0);
    EXPECT_EQ(flash_of(1) == new_image().bytes, true);
    expect_tidy(1);
}

TEST_F(BiosctlCommand, TakesNoKilledProgrammingForSuccess)
{
    set_faults(1, "torn program 300");
    const finished_program finished = biosctl({"program", "1"});
    EXPECT_EQ(finished.exit_code, FAILED);
    EXPECT_TRUE(says(finished.errors, "not programmed")) << finished.errors;
    EXPECT_TRUE(says(finished.errors, "do not reboot")) << finished.errors;
    EXPECT_FALSE(says(finished.output + finished.errors, "programmed and verified"));

    const nlohmann::json status = nlohmann::json::parse(chassis({"status", "--json"}).output);
    EXPECT_TRUE(status["cards"][0]["flashes"][0]["being_programmed"]);
    EXPECT_EQ(biosctl({"program", "1"}).exit_code, DONE);
}

TEST_F(BiosctlCommand, AnswersWithJsonAlone)
{
    const finished_program finished = biosctl({"--json", "program", "1"});
    EXPECT_EQ(finished.exit_code, DONE) << finished.errors;
    const nlohmann::json told = nlohmann::json::parse(finished.output);
    EXPECT_EQ(told["result"], "0x00000000") << finished.output;
    EXPECT_EQ(told["verified"], true);
    EXPECT_EQ(told["programmed_module"], 1);
    EXPECT_EQ(told["exit_code"], DONE);

    protect(1, "0\n");
    std::filesystem::remove(flash_file(1, "data"));
    write_file(flash_file(1, "data"), old_image().bytes);
    const finished_program failed = biosctl({"--json", "program", "1"});
    EXPECT_EQ(failed.exit_code, FAILED);
    EXPECT_EQ(nlohmann::json::parse(failed.output)["result"], "0x40710021") << failed.output;

    for (const std::vector<std::string> &words : {std::vector<std::string>{"--json", "program", "7"},
                                                  {"--json", "program", "233"},
                                                  {"--json", "lock", "1"}}) {
        const finished_program other = biosctl(words);
        EXPECT_EQ(nlohmann::json::parse(other.output)["exit_code"], other.exit_code) << other.output;
    }
}

TEST_F(BiosctlCommand, TellsWhatItCannotFindOrUnderstand)
{
    EXPECT_EQ(biosctl({"program", "7"}).exit_code, NOT_FOUND);
    EXPECT_EQ(biosctl({"program", "1", "--via", "7"}).exit_code, NOT_FOUND);
    EXPECT_EQ(biosctl({"program", "0"}).exit_code, USAGE);
    EXPECT_EQ(biosctl({"program", "233"}).exit_code, USAGE);
    EXPECT_EQ(biosctl({"program", "1", "--image", std::string(228, 'a')}).exit_code, USAGE);
    EXPECT_EQ(biosctl({"program"}).exit_code, USAGE);
    EXPECT_EQ(biosctl({}).exit_code, USAGE);
    EXPECT_EQ(child_pid(1), 0) << "one of these was taken for a request";
}

TEST_F(BiosctlCommand, TellsThatAProgrammingRunsAlready)
{
    keep_pauses(1);
    requester other;
    programming running = other.start(1);
    ASSERT_EQ(running.answer, 0U);
    const finished_program busy = biosctl({"program", "1"});
    EXPECT_EQ(busy.exit_code, BUSY);
    EXPECT_TRUE(says(busy.errors, "0x4071000a")) << busy.errors;
    other.await_end(running);
    expect_programmed(running, 1, new_image());
}

TEST_F(BiosctlCommand, LooksAwayOnInterruptAndTheProgrammingGoesOn)
{
    keep_pauses(1);
    running_program watching(biosctl_words({"program", "1"}));
    ASSERT_TRUE(wait_until([&] { return says(watching.output() + watching.errors(), "module 1: "); }));
    watching.signal(SIGINT);
    const finished_program finished = watching.wait();
    EXPECT_EQ(finished.exit_code, INTERRUPTED);
    EXPECT_TRUE(says(finished.errors, "the programming goes on in the card")) << finished.errors;
    EXPECT_TRUE(says(finished.errors, "look at it again with: biosctl watch 1")) << finished.errors;
    EXPECT_TRUE(wait_until([&] { return child_pid(1) == 0 && !is_locked(1); }));
    EXPECT_EQ(flash_of(1) == new_image().bytes, true);
    const finished_program ended = biosctl({"watch", "1", "--once", "--json"});
    EXPECT_EQ(nlohmann::json::parse(ended.output)["cards"][0]["last_result"]["name"], "ok") << ended.output;
    EXPECT_TRUE(says(biosctl({"events", "1", "--last", "1"}).output, "ended")) << "that tells it too";
    expect_tidy(1);
}

TEST_F(BiosctlCommand, NoticesThatTheDaemonHasEnded)
{
    keep_pauses(1);
    running_program watching(biosctl_words({"program", "1"}));
    ASSERT_TRUE(wait_until([&] { return child_pid(1) != 0; }));
    ASSERT_EQ(::kill(daemon_pid(1), SIGKILL), 0);
    const finished_program finished = watching.wait();
    EXPECT_EQ(finished.exit_code, FAILED);
    EXPECT_TRUE(says(finished.errors, "ended before it reported a result")) << finished.errors;
}

TEST_F(BiosctlCommand, TellsThatNobodyServes)
{
    ASSERT_EQ(chassis({"down"}).exit_code, 0);
    const finished_program finished = biosctl({"program", "1"});
    EXPECT_EQ(finished.exit_code, FAILED);
    EXPECT_TRUE(says(finished.errors, "no agent of a card of the chassis in '" + chassis_directory() + "' answers"))
        << finished.errors;
}
