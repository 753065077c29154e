// What is told about each end of a programming, and the exit code of it.
#include <gtest/gtest.h>

#include "program_report.h"

namespace
{

constexpr program_subject SUBJECT{5, 5, 27};

programming_end ended(watch_end how, std::uint32_t result, int percent)
{
    programming_end end{.how = how, .result = result, .elapsed_s = 42};
    if (percent >= 0)
        end.progress = {true, 2, static_cast<std::uint32_t>(percent), 1};
    return end;
}

// What was heard to be verified is, and what has got beyond its beginning is marked.
programming_result looked_at(const programming_end &end)
{
    const bool is_changed = end.progress.percent > 0 || end.progress.attempt > 1;
    const flash_finding unverified = is_changed ? flash_finding::half_written : flash_finding::holds_other;
    return result_of(SUBJECT, end, {.finding = end.progress.verified() ? flash_finding::holds_image : unverified});
}

bool tells(const outcome &end, const std::string &text)
{
    return failure_text(end, false).find(text) != std::string::npos;
}

} // namespace

TEST(ProgramReport, SuccessNeedsResultZeroAndOneHundredPercent)
{
    const outcome end = report_programming(looked_at(ended(watch_end::reported, 0, 100)));
    EXPECT_EQ(end.exit, 0);
    EXPECT_TRUE(tells(end, "module 5: programmed and verified"));
    EXPECT_EQ(end.json["verified"], true);
    EXPECT_EQ(end.json["outcome"], "programmed and verified");
}

TEST(ProgramReport, ResultZeroWithoutProgressIsNothingProgrammed)
{
    const outcome end = report_programming(looked_at(ended(watch_end::reported, 0, -1)));
    EXPECT_EQ(end.exit, 1);
    EXPECT_TRUE(tells(end, "nothing was programmed"));
    EXPECT_TRUE(tells(end, "likely: "));
    EXPECT_FALSE(tells(end, "programmed and verified"));
    EXPECT_EQ(end.json["verified"], false);
}

TEST(ProgramReport, AFlashThatNobodyHasBegunIsNotTouched)
{
    programming_result nothing = looked_at(ended(watch_end::reported, 0, -1));
    nothing.proof.is_begun = false;
    const outcome end = report_programming(nothing);
    EXPECT_EQ(end.exit, 1);
    EXPECT_TRUE(tells(end, "nothing was programmed (result 0x00000000, and no flash was begun)"));
    EXPECT_FALSE(tells(end, "likely: "));
    EXPECT_EQ(end.json["flash"], "not touched");
}

TEST(ProgramReport, ResultZeroBeforeOneHundredPercentWarnsAgainstAReboot)
{
    for (const int percent : {0, 1, 99}) {
        const outcome end = report_programming(looked_at(ended(watch_end::reported, 0, percent)));
        EXPECT_EQ(end.exit, 1) << percent;
        EXPECT_TRUE(tells(end, "not programmed")) << percent;
        EXPECT_TRUE(tells(end, "do not reboot")) << percent;
        EXPECT_FALSE(tells(end, "programmed and verified")) << percent;
    }
}

TEST(ProgramReport, AFailureTellsCodeMeaningFlashAndNextStep)
{
    const outcome end = report_programming(looked_at(ended(watch_end::reported, 0x40710009, 30)));
    EXPECT_EQ(end.exit, 1);
    EXPECT_TRUE(tells(end, "0x40710009 (erase_failed)"));
    EXPECT_TRUE(tells(end, "\n  flash: may be corrupted: do not reboot"));
    EXPECT_TRUE(tells(end, "\n  next: program the card again"));
    EXPECT_EQ(end.json["result"], "0x40710009");
    EXPECT_EQ(end.json["name"], "erase_failed");
}

TEST(ProgramReport, AFailureAfterTheVerificationSaysThatTheFlashIsGood)
{
    const outcome end = report_programming(looked_at(ended(watch_end::reported, 0x40710004, 100)));
    EXPECT_EQ(end.exit, 1);
    EXPECT_TRUE(tells(end, "flash: programmed and verified before that"));
}

TEST(ProgramReport, AHarmlessCodeAfterAnAttemptThatChangedTheFlashWarnsAllTheSame)
{
    EXPECT_TRUE(tells(report_programming(looked_at(ended(watch_end::reported, 0x40710027, 30))), "do not reboot"));
    EXPECT_FALSE(tells(report_programming(looked_at(ended(watch_end::reported, 0x40710027, 0))), "do not reboot"));
    programming_end second = ended(watch_end::reported, 0x40710027, 0);
    second.progress.attempt = 2;
    EXPECT_TRUE(tells(report_programming(looked_at(second)), "do not reboot"));
}

// Neither an attempt's number nor its code says that it has come to a change.
TEST(ProgramReport, AFailureThatLeftNoMarkerHasLeftTheFlashAlone)
{
    programming_end end = ended(watch_end::reported, 0x40710009, 0);
    end.progress.attempt = 4;
    const outcome untouched = report_programming(result_of(SUBJECT, end, {.finding = flash_finding::holds_other}));
    EXPECT_TRUE(tells(untouched, "flash: not touched"));
    EXPECT_FALSE(tells(untouched, "do not reboot"));
    const outcome unknown = report_programming(result_of(SUBJECT, end, {.finding = flash_finding::unknown}));
    EXPECT_TRUE(tells(unknown, "do not reboot"));
}

TEST(ProgramReport, AFailureBeforeAnybodyHasBegunLeavesTheFlashAlone)
{
    programming_result unfit = looked_at(ended(watch_end::reported, 0x40710020, -1));
    EXPECT_TRUE(tells(report_programming(unfit), "erased on all others"));
    unfit.proof.is_begun = false;
    EXPECT_TRUE(tells(report_programming(unfit), "flash: not touched\n")) << report_programming(unfit).json.dump();
    EXPECT_EQ(report_programming(unfit).json["flash"], "not touched");
}

TEST(ProgramReport, AMarkedFlashWasBegunWhateverWasHeard)
{
    for (const std::uint32_t code : {0U, 0x40710027U}) {
        const programming_result killed =
            result_of(SUBJECT, ended(watch_end::reported, code, -1), {.finding = flash_finding::half_written});
        const outcome end = report_programming(killed);
        EXPECT_NE(end.exit, EXIT_DONE);
        EXPECT_FALSE(tells(end, "nothing was programmed"));
        EXPECT_FALSE(tells(end, "not touched"));
        EXPECT_TRUE(tells(end, "flash: may be corrupted: do not reboot the card"));
    }
}

TEST(ProgramReport, NotNeededIsNothingToDo)
{
    const outcome end = report_programming(looked_at(ended(watch_end::reported, 0x40710001, -1)));
    EXPECT_EQ(end.exit, 2);
    EXPECT_TRUE(tells(end, "nothing to do"));
}

TEST(ProgramReport, ADaemonThatEndedLeavesTheFlashAsFarAsItWasSeen)
{
    EXPECT_TRUE(tells(report_programming(looked_at(ended(watch_end::vanished, 0, 40))), "may be corrupted"));
    EXPECT_TRUE(tells(report_programming(looked_at(ended(watch_end::vanished, 0, -1))), "flash: unknown"));
    const outcome verified = report_programming(looked_at(ended(watch_end::vanished, 0, 100)));
    EXPECT_TRUE(tells(verified, "flash: programmed and verified"));
    EXPECT_EQ(verified.exit, 1);
}

TEST(ProgramReport, AnInterruptAndATimeLimitSayThatItGoesOn)
{
    const outcome interrupted = report_programming(looked_at(ended(watch_end::interrupted, 0, 40)));
    EXPECT_EQ(interrupted.exit, 130);
    EXPECT_TRUE(tells(interrupted, "goes on in the card"));
    EXPECT_TRUE(tells(interrupted, "look at it again with: biosctl watch 5"));
    EXPECT_EQ(report_programming(looked_at(ended(watch_end::timed_out, 0, 40))).exit, 1);
}

TEST(ProgramReport, AProgrammingThatHasStalledSaysWhatTheFlashIs)
{
    programming_result stalled = looked_at(ended(watch_end::stalled, 0, 100));
    EXPECT_EQ(stalled.ending, programming_ending::stalled);
    EXPECT_EQ(report_programming(stalled).exit, 1);
    EXPECT_TRUE(tells(report_programming(stalled), "no progress for 31 s, and no result"));
    EXPECT_TRUE(tells(report_programming(stalled), "flash: programmed and verified"));
    stalled.silent_daemon = 27;
    EXPECT_TRUE(tells(report_programming(stalled), "the daemon of slot 27 was stopped or hangs"));
    stalled.proof.finding = flash_finding::half_written;
    EXPECT_TRUE(tells(report_programming(stalled), "may be corrupted"));
    stalled.writer = flash_writer{.slot = 5, .pid = 41, .since = "2026-01-31T23:59:59Z"};
    EXPECT_TRUE(tells(report_programming(stalled), "process 41 of slot 5"));
    EXPECT_TRUE(tells(report_programming(stalled), "being programmed: do not reboot"));
}

TEST(ProgramReport, TextAndJsonSayTheSame)
{
    for (const watch_end how : {watch_end::reported, watch_end::vanished, watch_end::interrupted,
                                watch_end::timed_out, watch_end::stalled}) {
        for (const int percent : {-1, 40, 100}) {
            const outcome end = report_programming(looked_at(ended(how, 0, percent)));
            EXPECT_EQ(end.json["command"], "program");
            EXPECT_EQ(end.json["next"], end.hints.back().text.plain());
            EXPECT_EQ(end.json.contains("error"), end.exit != EXIT_DONE);
            EXPECT_EQ(end.json.value("error", end.headline.plain()), end.headline.plain());
        }
    }
}

TEST(ProgramReport, ARefusalNamesTheCardThatHasRefused)
{
    programming_result refused{.subject = SUBJECT, .ending = programming_ending::refused, .code = 0x40710049};
    EXPECT_TRUE(tells(report_programming(refused), "slot 5 refused to program: 0x40710049 (older)"));
    refused.code = 0x4071000a;
    refused.order = flash_order{};
    EXPECT_TRUE(tells(report_programming(refused), "slot 5 refused to program"));
    refused.order.reset();
    EXPECT_TRUE(tells(report_programming(refused), "slot 27 refused to program"));
}

TEST(ProgramReport, ARefusalNamesTheHolderOfTheLock)
{
    programming_result refused{.subject = SUBJECT, .ending = programming_ending::refused, .code = 0x4071000a};
    EXPECT_FALSE(tells(report_programming(refused), "lock: "));
    refused.lock = lock_in_the_way{27, {27 * 256 + 1, 28, 41, 129, 0x4071000a, "2024-05-01T10:00:00Z"}};
    const outcome end = report_programming(refused);
    EXPECT_EQ(end.exit, EXIT_BUSY);
    EXPECT_EQ(end.json["outcome"], "refused");
    EXPECT_EQ(end.json["error"], "module 5: slot 27 refused to program");
    EXPECT_EQ(end.json["locked_module"], 27);
    EXPECT_TRUE(tells(end, "\n  lock: module 27 is held by slot 28, process 41")) << failure_text(end, false);
    refused.lock->holder.user = "ann";
    refused.lock->holder.host = "far";
    const outcome locked = report_programming(refused);
    EXPECT_TRUE(tells(locked, "\n  lock: module 27 is held for ann@far ")) << failure_text(locked, false);
    EXPECT_TRUE(tells(locked, "frees it with: biosctl unlock 27")) << failure_text(locked, false);
    EXPECT_FALSE(tells(locked, "other programming to end")) << failure_text(locked, false);
}

TEST(ProgramReport, AnotherVersionThanExpectedIsExplained)
{
    const programming_result verified = looked_at(ended(watch_end::reported, 0, 100));
    const outcome end = report_programming(with_version(verified, {"v3.5.0(09/17/12)", "v3.4.0(09/17/12)"}));
    EXPECT_EQ(end.exit, EXIT_FAILED);
    EXPECT_TRUE(tells(end, "its flash holds v3.4.0(09/17/12) and not v3.5.0(09/17/12)"));
    EXPECT_EQ(end.json["outcome"], "other version");
    EXPECT_EQ(end.json["verified"], true);
    EXPECT_EQ(end.json["flash_version"], "v3.4.0(09/17/12)");
    EXPECT_TRUE(
        report_programming(with_version(verified, {"v3.5.0(09/17/12)", ""})).json["flash_version"].is_null());
}

TEST(ProgramReport, WhatKeptItFromBeingAskedForIsReportedAsItIs)
{
    const outcome end = report_programming(no_answer(SUBJECT, failure(EXIT_NOT_FOUND, "no module", "look")));
    EXPECT_EQ(end.exit, EXIT_NOT_FOUND);
    EXPECT_EQ(end.headline.plain(), "no module");
    nlohmann::ordered_json row{{"module", 5}};
    add_programming_members(row, no_answer(SUBJECT, failure(EXIT_NOT_FOUND, "no module", "look")));
    EXPECT_EQ(row.dump(), R"({"module":5,"error":"no module","next":"look"})");
}

TEST(ProgramReport, ColoursWhatCameOfItAndWhatMustNotBeDone)
{
    const outcome good = report_programming(looked_at(ended(watch_end::reported, 0, 100)));
    EXPECT_EQ(good.headline.coloured(),
              "module 5: \033[32mprogrammed and verified\033[0m (result 0x00000000, 00:42)");
    const outcome bad = report_programming(looked_at(ended(watch_end::reported, 0x40710009, 30)));
    EXPECT_TRUE(bad.headline.coloured().starts_with("module 5: \033[31mprogramming failed\033[0m: 0x40710009"));
    ASSERT_EQ(bad.hints.size(), 2U);
    EXPECT_EQ(bad.hints[0].text.coloured(), "\033[31mmay be corrupted: do not reboot the card\033[0m");
    EXPECT_EQ(bad.hints[1].text.coloured(), bad.hints[1].text.plain());
}
