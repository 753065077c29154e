// How a programming has ended, and what a command makes of it.
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "program_series.h"
#include "programming_result.h"

namespace
{

constexpr program_subject SUBJECT{5, 5, 27};
constexpr const char *OLD = "v3.4.0(09/17/12)";
constexpr const char *NEW = "v3.5.0(09/17/12)";

programming_result ended(watch_end how, std::uint32_t code, int percent)
{
    programming_end end{.how = how, .result = code, .elapsed_s = 42};
    if (percent >= 0)
        end.progress = {true, 2, static_cast<std::uint32_t>(percent), 1};
    return result_of(SUBJECT, end,
                     {.finding = percent == 100 ? flash_finding::holds_image : flash_finding::holds_other});
}

programming_ending ending_of(watch_end how, std::uint32_t code, int percent)
{
    return ended(how, code, percent).ending;
}

} // namespace

TEST(ProgrammingResult, IsVerifiedWithCodeZeroAndOneHundredPercentAlone)
{
    EXPECT_EQ(ending_of(watch_end::reported, 0, 100), programming_ending::verified);
    EXPECT_EQ(ending_of(watch_end::reported, 0, 99), programming_ending::not_verified);
    EXPECT_EQ(ending_of(watch_end::reported, 0, -1), programming_ending::nothing_programmed);
    EXPECT_EQ(ending_of(watch_end::reported, 0x40710009, 100), programming_ending::failed);
    EXPECT_EQ(ending_of(watch_end::reported, 0x40710001, -1), programming_ending::nothing_to_do);
    EXPECT_EQ(ending_of(watch_end::vanished, 0, 100), programming_ending::daemon_ended);
    EXPECT_EQ(ending_of(watch_end::interrupted, 0, 100), programming_ending::interrupted);
    EXPECT_EQ(ending_of(watch_end::timed_out, 0, 100), programming_ending::timed_out);
    EXPECT_EQ(ending_of(watch_end::stalled, 0, 100), programming_ending::stalled);
}

TEST(ProgrammingResult, IsByTheProofAndNotByWhatIsHeard)
{
    const auto ending_with = [](std::uint32_t percent, flash_finding finding) {
        const programming_end end{.progress = {true, 3, percent, 1}};
        return result_of(SUBJECT, end, {.finding = finding}).ending;
    };
    EXPECT_EQ(ending_with(100, flash_finding::holds_other), programming_ending::not_verified);
    EXPECT_EQ(ending_with(100, flash_finding::half_written), programming_ending::not_verified);
    EXPECT_EQ(ending_with(100, flash_finding::not_looked), programming_ending::not_verified);
    EXPECT_EQ(ending_with(100, flash_finding::unknown), programming_ending::unconfirmed);
    EXPECT_EQ(ending_with(40, flash_finding::unknown), programming_ending::not_verified);
    EXPECT_EQ(ending_with(40, flash_finding::holds_image), programming_ending::not_verified);
    EXPECT_EQ(exit_of(result_of(SUBJECT, {.progress = {true, 3, 100, 1}}, {.finding = flash_finding::unknown})),
              EXIT_FAILED);
}

TEST(ProgrammingResult, HasACodeWhenADaemonGaveOne)
{
    EXPECT_TRUE(ended(watch_end::reported, 0, 100).has_code());
    EXPECT_TRUE(ended(watch_end::reported, 0x40710009, 30).has_code());
    EXPECT_FALSE(ended(watch_end::vanished, 0, 100).has_code());
    EXPECT_FALSE(ended(watch_end::interrupted, 0, 100).has_code());
    EXPECT_FALSE(programming_result{}.has_code());
}

TEST(ProgrammingResult, OnlyTheExpectedNumbersAreSuccess)
{
    const programming_result verified = ended(watch_end::reported, 0, 100);
    EXPECT_EQ(exit_of(with_version(verified, {NEW, NEW})), EXIT_DONE);
    EXPECT_EQ(exit_of(with_version(verified, {NEW, "v3.5.0(01/01/01)"})), EXIT_DONE) << "dates are not compared";
    for (const char *found : {"", OLD, "v3.6.0(09/17/12)", "????"}) {
        const programming_result checked = with_version(verified, {NEW, found});
        EXPECT_EQ(checked.ending, programming_ending::other_version) << found;
        EXPECT_EQ(exit_of(checked), EXIT_FAILED) << found;
        EXPECT_TRUE(checked.is_proved()) << found;
        EXPECT_EQ(checked.version->found, found);
    }
}

TEST(ProgrammingResult, ExitCodesFollowTheEnding)
{
    EXPECT_EQ(exit_of(ended(watch_end::reported, 0, 99)), EXIT_FAILED);
    EXPECT_EQ(exit_of(ended(watch_end::reported, 0, -1)), EXIT_FAILED);
    EXPECT_EQ(exit_of(ended(watch_end::reported, 0x40710001, -1)), EXIT_NOTHING_TO_DO);
    EXPECT_EQ(exit_of(ended(watch_end::reported, 0x40710005, -1)), EXIT_NOT_FOUND);
    EXPECT_EQ(exit_of(ended(watch_end::vanished, 0, 100)), EXIT_FAILED);
    EXPECT_EQ(exit_of(ended(watch_end::interrupted, 0, 40)), EXIT_INTERRUPTED);
    EXPECT_EQ(exit_of(ended(watch_end::timed_out, 0, 40)), EXIT_FAILED);
    EXPECT_EQ(exit_of(no_answer(SUBJECT, {.exit = EXIT_NOT_FOUND})), EXIT_NOT_FOUND);
    EXPECT_EQ(exit_of(not_asked(SUBJECT, {.exit = EXIT_INTERRUPTED})), EXIT_INTERRUPTED);
}

TEST(ProgrammingResult, WhatWasNotTriedIsUndoneAndWhatHadNotToBeDoneIsNot)
{
    EXPECT_TRUE(is_undone({}));
    EXPECT_TRUE(is_undone(ended(watch_end::reported, 0x40710009, 30)));
    EXPECT_FALSE(is_undone(ended(watch_end::reported, 0, 100)));
    EXPECT_FALSE(is_undone(ended(watch_end::reported, 0x40710001, -1)));
}

TEST(ProgrammingResult, EndingsThatDifferHaveDifferentNames)
{
    std::set<std::string> names;
    for (int ending = 0; ending <= static_cast<int>(programming_ending::other_version); ++ending)
        names.insert(ending_name(static_cast<programming_ending>(ending)));
    EXPECT_EQ(names.size(), 15U)
        << "a programming goes on after Ctrl-C as after a time limit, and nothing is to do";
}

TEST(SeriesJson, HasARowForEachModule)
{
    const programming_result untried{.subject = {.asked_module = 28}};
    const auto rows = series_json(std::vector{ended(watch_end::reported, 0, 100), untried});
    EXPECT_EQ(
        rows[0].dump(),
        R"({"module":5,"outcome":"programmed and verified","exit_code":0,"programmed_module":5,)"
        R"("serving_slot":27,"image":null,"version":null,"old_version":null,"verified":true,"elapsed_s":42,"percent":100,"attempt":1,)"
        R"("result":"0x00000000","flash":"programmed and verified",)"
        R"("next":"reboot the card for the new BIOS to take effect"})");
    EXPECT_EQ(rows[1].dump(), R"({"module":28,"outcome":"not tried"})");
}
