// biosctl program against a daemon that follows a script: the built program, the real transport.
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "biosctl_chassis.h"
#include "modlock.h"

namespace
{

class Program : public ::testing::Test
{
protected:
    // Runs "program MODULE" while the daemon of a slot follows the script.
    int program(const scripted_daemon::script_function &script, std::vector<std::string> words = {"5"},
                unsigned slot = 27)
    {
        const scripted_daemon daemon(chassis_, slot, script);
        words.insert(words.begin(), {"--dir", chassis_.path(), "program"});
        run_ = std::make_unique<biosctl_run>(words);
        return run_->exit_code();
    }
    bool err_has(const std::string &text) const { return run_->err().find(text) != std::string::npos; }
    bool out_has(const std::string &text) const { return run_->out().find(text) != std::string::npos; }

    test_chassis chassis_;
    std::unique_ptr<biosctl_run> run_;
};

void accept(daemon_side &side)
{
    (void)side.receive(4791);
    side.answer(0);
}

void program_to_100(daemon_side &side)
{
    for (std::uint32_t percent = 0; percent <= 100; ++percent)
        side.progress(percent < 30 ? 1 : percent < 70 ? 2 : 3, percent);
}

std::size_t lines_of(const std::string &text)
{
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

} // namespace

TEST_F(Program, ResultZeroAndAVerifiedFlashAreSuccess)
{
    EXPECT_EQ(program([](daemon_side &side) {
                  accept(side);
                  program_to_100(side);
                  side.notify(0, 5);
              }),
              0);
    EXPECT_TRUE(out_has("module 5: programmed and verified")) << run_->out();
    EXPECT_EQ(lines_of(run_->err()), 11u) << run_->err();
    EXPECT_TRUE(err_has("module 5: 0% erasing, attempt 1"));
    EXPECT_TRUE(err_has("module 5: 100% verified, attempt 1"));
}

TEST_F(Program, TheRequestIsTheLiteralBody)
{
    EXPECT_EQ(program(
                  [](daemon_side &side) {
                      std::vector<std::uint8_t> expected(529);
                      expected[3] = 27;
                      std::memcpy(&expected[12], "file:///bootflash/a.img", 23);
                      expected[528] = 1;
                      const bool equal = side.receive(4791) == expected;
                      side.answer(0);
                      side.progress(3, 100);
                      side.notify(equal ? 0 : 0x40710099, 27);
                  },
                  {"27", "--image", "bootflash:a.img", "--type", "1"}),
              0)
        << run_->err();
}

// Anybody may send the pair of them.
TEST_F(Program, AVerifiedFlashThatIsOnlyHeardOfIsNoSuccess)
{
    const auto forged = [](daemon_side &side) {
        accept(side);
        program_to_100(side);
        side.notify(0, 5);
    };
    chassis_.agent_says(5, "other_contents");
    EXPECT_EQ(program(forged), 1);
    EXPECT_TRUE(err_has("module 5: not programmed")) << run_->err();
    EXPECT_TRUE(err_has("the flash does not hold the image asked for")) << run_->err();
    EXPECT_FALSE(err_has("programmed and verified")) << run_->err();
    EXPECT_EQ(run_->out(), "");
    chassis_.agent_says(5, "half_written");
    EXPECT_EQ(program(forged), 1);
    EXPECT_TRUE(err_has("marked as half written")) << run_->err();
}

TEST_F(Program, AFlashThatIsReadWrongOnceIsReadAgain)
{
    chassis_.agent_says(5, "misread_once");
    EXPECT_EQ(program([](daemon_side &side) {
                  accept(side);
                  program_to_100(side);
                  side.notify(0, 5);
              }),
              0)
        << run_->err();
    EXPECT_FALSE(std::filesystem::exists(chassis_.path() + "/slots/5/misread_once"));
}

TEST_F(Program, AFlashThatCannotBeReadIsSaidSo)
{
    chassis_.agent_says(5, "no_digest", "0x40720003");
    EXPECT_EQ(program([](daemon_side &side) {
                  accept(side);
                  program_to_100(side);
                  side.notify(0, 5);
              }),
              1);
    EXPECT_TRUE(err_has("the flash was not read: it cannot be read on the card")) << run_->err();
    EXPECT_FALSE(err_has("does not answer")) << run_->err();
}

// The daemon is not asked then: the test's one would wait for the request in vain.
TEST_F(Program, NothingIsBegunWithoutAnImageOrAnAgent)
{
    const auto not_asked = [](daemon_side &) {};
    chassis_.agent_says(5, "no_image", "0x40720025");
    EXPECT_EQ(program(not_asked, {"5", "--json"}), 1);
    const auto told = nlohmann::json::parse(run_->out(), nullptr, false);
    ASSERT_TRUE(told.is_object()) << run_->out();
    EXPECT_NE(told["error"].get<std::string>().find("cut short or damaged"), std::string::npos) << run_->out();
    chassis_.agent_says(5, "no_image", "0x40720022");
    EXPECT_EQ(program(not_asked), 3);
    EXPECT_TRUE(err_has("there is no such regular file on the card")) << run_->err();
    chassis_.end_agent(5);
    EXPECT_EQ(program(not_asked), 1);
    EXPECT_TRUE(err_has("not begun")) << run_->err();
    EXPECT_TRUE(err_has("the agent of slot 5 does not answer")) << run_->err();
}

TEST_F(Program, AnImageThatIsInTheFlashAlreadyIsNotProgrammedAgain)
{
    chassis_.agent_says(5, "already_there");
    EXPECT_EQ(program([](daemon_side &) {}), 2);
    EXPECT_TRUE(err_has("module 5: already in the flash, nothing to do")) << run_->err();
    EXPECT_FALSE(err_has("reboot")) << run_->err();
}

TEST_F(Program, AnOrderThatTheCardRefusesIsNotBegun)
{
    chassis_.agent_says(5, "no_order", "0x40710049");
    EXPECT_EQ(program([](daemon_side &) {}), 1);
    EXPECT_TRUE(err_has("0x40710049 (older)")) << run_->err();
    EXPECT_TRUE(err_has("--force=older")) << run_->err();
    chassis_.agent_says(5, "no_order", "0x40720051");
    EXPECT_EQ(program([](daemon_side &) {}), 4);
    EXPECT_TRUE(err_has("0x4071000a (busy)")) << run_->err();
}

TEST_F(Program, WhatTheCardHasNotRecordedIsNoSuccess)
{
    chassis_.agent_says(5, "not_recorded");
    EXPECT_EQ(program([](daemon_side &side) {
                  accept(side);
                  program_to_100(side);
                  side.notify(0, 5);
              }),
              1);
    EXPECT_TRUE(err_has("the card has not recorded that the order was carried out")) << run_->err();
}

TEST_F(Program, ImagesThatMeanNothingAreMisuse)
{
    for (const char *image : {"usb:x", "nowhere", "/bootflash/../etc/passwd", "bootflash:a//b", "/bootflash/./a",
                              "bootflash:a;b", "", "file://host/a"}) {
        EXPECT_EQ(program([](daemon_side &) {}, {"27", "--image", image}), 64) << image;
    }
    EXPECT_EQ(program([](daemon_side &) {}, {"5", "--image", "bootflash:a"}), 64) << "its card unpacks nothing";
}

TEST_F(Program, ResultZeroWithoutProgressIsNoSuccess)
{
    EXPECT_EQ(program([](daemon_side &side) {
                  accept(side);
                  side.notify(0, 5);
              }),
              1);
    EXPECT_TRUE(err_has("nothing was programmed"));
    EXPECT_FALSE(err_has("programmed and verified"));
    EXPECT_EQ(run_->out(), "");
}

TEST_F(Program, ResultZeroAtNinetyNinePercentIsNoSuccess)
{
    EXPECT_EQ(program([](daemon_side &side) {
                  accept(side);
                  side.progress(2, 99);
                  side.notify(0, 5);
              }),
              1);
    EXPECT_TRUE(err_has("do not reboot"));
}

TEST_F(Program, AFailureCodeIsToldWithItsMeaning)
{
    EXPECT_EQ(program([](daemon_side &side) {
                  accept(side);
                  side.progress(1, 10);
                  side.notify(0x40710009, 5);
              }),
              1);
    EXPECT_TRUE(err_has("0x40710009 (erase_failed)"));
    EXPECT_TRUE(err_has("do not reboot"));
}

TEST_F(Program, BusyIsToldWithTheHolderOfTheLock)
{
    EXPECT_EQ(program([](daemon_side &side) {
                  const std::uint32_t request[4] = {1, 0, 0, 0x4071000a};
                  (void)modlock_init();
                  (void)modlock_module_lock(129, 27 * 256 + 1, request);
                  (void)side.receive(4791);
                  side.answer(0x4071000a);
              }),
              4);
    EXPECT_TRUE(err_has("0x4071000a (busy)"));
    EXPECT_TRUE(err_has("lock: module 27 is held by slot 27")) << run_->err();
    EXPECT_TRUE(err_has("for a programming")) << run_->err();
}

TEST_F(Program, BusyBecauseNoLockCanBeHadNamesTheAgent)
{
    chassis_.end_agent(27);
    EXPECT_EQ(program([](daemon_side &side) {
                  (void)side.receive(4791);
                  side.answer(0x4071000a);
              }),
              4);
    EXPECT_TRUE(err_has("the agent of slot 27 does not answer")) << run_->err();
}

TEST_F(Program, AnUnmappedUriIsNotFound)
{
    EXPECT_EQ(program(
                  [](daemon_side &side) {
                      (void)side.receive(4791);
                      side.answer(0x40710005);
                  },
                  {"27", "--image", "bootflash:nowhere"}),
              3);
    EXPECT_TRUE(err_has("uri_not_mapped"));
}

TEST_F(Program, ARejectedRequestIsAFailure)
{
    EXPECT_EQ(program([](daemon_side &side) {
                  (void)side.receive(4791);
                  side.reject();
              }),
              1);
    EXPECT_TRUE(err_has("rejected"));
}

TEST_F(Program, ANoticeAboutAnotherModuleIsPassedOver)
{
    EXPECT_EQ(program([](daemon_side &side) {
                  accept(side);
                  side.progress(1, 5);
                  side.notify(0x40710009, 6);
                  side.progress(3, 100);
                  side.notify(0, 5);
              }),
              0);
}

TEST_F(Program, TheNoticeOfAnEarlierProgrammingOfTheModuleIsPassedOver)
{
    EXPECT_EQ(program([](daemon_side &side) {
                  const std::uint32_t request[4] = {1, 0, 0, 0x4071000a};
                  (void)side.receive(4791);
                  side.notify(0x40710009, 5);
                  (void)modlock_init();
                  (void)modlock_module_lock(129, 27 * 256 + 1, request);
                  side.answer(0);
                  ::sleep(2); // the work, which begins with nothing to report
                  side.progress(3, 100);
                  (void)modlock_module_unlock(129, 27 * 256 + 1);
                  side.notify(0, 5);
              }),
              0)
        << run_->err();
}

TEST_F(Program, HostilePayloadsAreNeitherAnEndNorAProof)
{
    EXPECT_EQ(program([](daemon_side &side) {
                  accept(side);
                  side.notify_bytes("", 0);
                  side.notify_bytes("\0\0\0\0\0\0\0", 7);
                  side.to_requester(4793, "\0\0\0", 3);
                  side.to_requester(4795, "\0\0\0\3\0\0\0\144\0\0", 11);
                  side.to_requester(4795, "\0\0\0\3\xff\xff\xff\xff\0\0\0\1", 12);
                  side.to_requester(4795, "", 0);
                  side.to_requester(4791, std::string(2000, '\0').data(), 2000);
                  side.notify(0, 5);
              }),
              1);
    EXPECT_TRUE(err_has("nothing was programmed")) << run_->err();
}

TEST_F(Program, AStandbyReportsToTheRequester)
{
    EXPECT_EQ(program(
                  [](daemon_side &side) {
                      accept(side);
                      side.progress(3, 100);
                      side.done(0);
                  },
                  {"28", "--via", "28"}, 28),
              0);
    EXPECT_TRUE(out_has("module 28: programmed and verified"));
}

TEST_F(Program, AStandbyAskedForAnotherModuleIsToldToProgramItsOwn)
{
    EXPECT_EQ(program(
                  [](daemon_side &side) {
                      accept(side);
                      side.progress(3, 100);
                      side.done(0);
                  },
                  {"5", "--via", "28"}, 28),
              0);
    EXPECT_TRUE(err_has("slot 28 programs module 28, not 5"));
    EXPECT_TRUE(out_has("module 28: programmed and verified"));
}

TEST_F(Program, ACardThatProgramsModule18OnlyIsExpectedToReportIt)
{
    chassis_.insert(27, 1, 316, 1);
    chassis_.insert(18, 2, 90, 0);
    EXPECT_EQ(program([](daemon_side &side) {
                  accept(side);
                  side.progress(3, 100);
                  side.notify(0, 18);
              }),
              0);
    EXPECT_TRUE(err_has("slot 27 programs module 18, not 5")) << run_->err();
    EXPECT_TRUE(out_has("module 18: programmed and verified"));
}

TEST_F(Program, ADaemonThatEndsIsNoticed)
{
    scripted_daemon daemon(chassis_, 27, [](daemon_side &side) {
        accept(side);
        side.progress(2, 50);
    });
    biosctl_run run({"--dir", chassis_.path(), "program", "5"});
    ASSERT_TRUE(run.wait_for_error_text("50% writing")) << run.err();
    daemon.kill();
    EXPECT_EQ(run.exit_code(), 1);
    EXPECT_NE(run.err().find("the daemon of slot 27 ended before it reported a result"), std::string::npos)
        << run.err();
    EXPECT_NE(run.err().find("do not reboot"), std::string::npos);
}

TEST_F(Program, ADaemonThatEndsAndIsStartedAgainIsNoticedToo)
{
    scripted_daemon daemon(chassis_, 27, [](daemon_side &side) {
        accept(side);
        side.progress(2, 50);
    });
    biosctl_run run({"--dir", chassis_.path(), "program", "5"});
    ASSERT_TRUE(run.wait_for_error_text("50% writing")) << run.err();
    daemon.kill();
    const scripted_daemon next(chassis_, 27, [](daemon_side &) {});
    EXPECT_EQ(run.exit_code(), 1);
    EXPECT_NE(run.err().find("ended before it reported"), std::string::npos) << run.err();
}

TEST_F(Program, AnEndReportedRightBeforeTheDaemonsDeathCounts)
{
    EXPECT_EQ(program([](daemon_side &side) {
                  accept(side);
                  side.progress(3, 100);
                  side.notify(0, 5);
                  ::_exit(0);
              }),
              0);
}

TEST_F(Program, CtrlCSaysThatTheProgrammingGoesOn)
{
    const scripted_daemon daemon(chassis_, 27, [](daemon_side &side) {
        accept(side);
        side.progress(2, 50);
    });
    biosctl_run run({"--dir", chassis_.path(), "program", "5"});
    ASSERT_TRUE(run.wait_for_error_text("50% writing")) << run.err();
    run.signal(SIGINT);
    EXPECT_EQ(run.exit_code(), 130);
    EXPECT_NE(run.err().find("goes on in the card"), std::string::npos) << run.err();
    EXPECT_NE(run.err().find("look at it again with: biosctl watch 5"), std::string::npos) << run.err();
}

TEST_F(Program, CtrlCWhileTheRequestIsNotAnsweredEndsAtOnce)
{
    const std::string got_it = chassis_.path() + "/got_it";
    const scripted_daemon daemon(chassis_, 27, [&](daemon_side &side) {
        (void)side.receive(4791);
        std::ofstream(got_it) << "yes";
    });
    biosctl_run run({"--json", "--dir", chassis_.path(), "program", "5"});
    for (int k = 0; k < 3000 && !std::filesystem::exists(got_it); ++k)
        ::usleep(10'000);
    run.signal(SIGINT);
    EXPECT_EQ(run.exit_code(), 130);
    const auto answer = nlohmann::json::parse(run.out(), nullptr, false);
    ASSERT_TRUE(answer.is_object()) << run.out();
    EXPECT_EQ(answer["exit_code"], 130);
}

TEST_F(Program, ALongSilenceEndsAtTheTimeLimitOnlyWhenThereIsOne)
{
    EXPECT_EQ(program(
                  [](daemon_side &side) {
                      accept(side);
                      ::sleep(FLASH_ORDER_RENEWAL_S + 1); // the order is renewed meanwhile
                      side.progress(3, 100);
                      side.notify(0, 5);
                  },
                  {"5"}),
              0);
    EXPECT_TRUE(chassis_.tool_addresses().empty());
    EXPECT_EQ(program([](daemon_side &side) { accept(side); }, {"5", "--timeout", "2"}), 1);
    EXPECT_TRUE(err_has("no result within the time given"));
    EXPECT_TRUE(err_has("goes on in the card"));
}

// A request that was lost on its way.
TEST_F(Program, ARequestThatIsNeverAnsweredEndsAtTheTimeLimit)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(program(
                  [](daemon_side &side) {
                      (void)side.receive(4791);
                      (void)::sleep(static_cast<unsigned>(TEST_DEADLINE.count()));
                  },
                  {"5", "--timeout", "1"}),
              1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_TRUE(err_has("the daemon did not answer in time")) << run_->err();
    EXPECT_TRUE(err_has("it may have taken the request")) << run_->err();
}

TEST_F(Program, JsonHoldsTheResultAndNothingElseIsOnStandardOutput)
{
    EXPECT_EQ(program(
                  [](daemon_side &side) {
                      accept(side);
                      side.progress(1, 40, 2);
                      side.notify(0x4071000c, 5);
                  },
                  {"5", "--json"}),
              1);
    const auto answer = nlohmann::json::parse(run_->out(), nullptr, false);
    ASSERT_TRUE(answer.is_object()) << run_->out();
    EXPECT_EQ(answer["module"], 5);
    EXPECT_EQ(answer["serving_slot"], 27);
    EXPECT_EQ(answer["result"], "0x4071000c");
    EXPECT_EQ(answer["verified"], false);
    EXPECT_EQ(answer["percent"], 40);
    EXPECT_EQ(answer["attempt"], 2);
    EXPECT_EQ(answer["exit_code"], 1);
    EXPECT_EQ(answer["flash"], "may be corrupted: do not reboot the card");
}
