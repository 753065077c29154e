// How programmings have ended, as the daemons' notices tell it.
#include <gtest/gtest.h>

#include "programming_results.h"

namespace
{

constexpr mts_address_t DAEMON_27 = {27 * 256 + 1, 1010};
constexpr std::uint32_t AGENTS_SAP = 1011;

kept_notice notice(std::uint32_t opcode, mts_address_t source, std::vector<std::uint8_t> payload)
{
    return {"2026-01-31T11:00:00.123456Z", source, opcode, std::move(payload)};
}

} // namespace

TEST(ProgrammingResults, AreThoseOfTheDaemonsNotices)
{
    told_ends ends;
    auto &results = ends.by_module;
    take_end(ends, notice(4792, DAEMON_27, {0x40, 0x71, 0, 0x0c, 0, 0, 0, 28}));
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[28].result.module.load(), 28U);
    EXPECT_EQ(results[28].result.result.load(), 0x4071000cU);
    EXPECT_EQ(results[28].result.reported_by_slot.load(), 27U);
    EXPECT_STREQ(field_text(results[28].result.time).text, "2026-01-31T11:00:00Z");
    take_end(ends, notice(4792, DAEMON_27, {0, 0, 0, 0, 0, 0, 0, 28}));
    EXPECT_EQ(results[28].result.result.load(), 0U);
}

TEST(ProgrammingResults, AreNotMadeOutOfAnythingElse)
{
    told_ends ends;
    const std::vector<std::uint8_t> good{0, 0, 0, 0, 0, 0, 0, 28};
    take_end(ends, notice(4793, DAEMON_27, good));
    take_end(ends, notice(4792, {DAEMON_27.node, AGENTS_SAP}, good));
    take_end(ends, notice(4792, DAEMON_27, {0, 0, 0, 0, 0, 0, 0}));
    take_end(ends, notice(4792, DAEMON_27, {}));
    take_end(ends, notice(4792, DAEMON_27, {0, 0, 0, 0, 0, 0, 0, 0}));
    take_end(ends, notice(4792, DAEMON_27, {0, 0, 0, 0, 0, 0, 0, 233}));
    take_end(ends, notice(4792, DAEMON_27, {0, 0, 0, 0, 1, 0, 0, 28}));
    EXPECT_TRUE(ends.by_module.empty());
}

TEST(ProgrammingResults, KnowWhenTheModulesDaemonHasReportedTheEnd)
{
    constexpr mts_address_t DAEMON_28 = {28 * 256 + 1, 1010};
    const std::vector<std::uint8_t> done{0, 0, 0, 0};
    told_ends ends;
    kept_notice report = notice(4793, DAEMON_28, done);
    report.time = "2026-01-31T10:58:00.000001Z";
    take_end(ends, report);
    take_end(ends, notice(4793, {DAEMON_28.node, AGENTS_SAP}, done));
    take_end(ends, notice(4793, {0x1ff01, 1010}, done));
    take_end(ends, notice(4793, {0, 1010}, done));
    EXPECT_TRUE(ends.by_module.empty()) << "nobody was told";
    take_end(ends, notice(4792, DAEMON_27, {0, 0, 0, 0, 0, 0, 0, 28}));
    EXPECT_EQ(ends.by_module[28].reported, "2026-01-31T10:58:00.000001Z");
    take_end(ends, notice(4792, DAEMON_27, {0, 0, 0, 0, 0, 0, 0, 28}));
    EXPECT_EQ(ends.by_module[28].reported, "") << "it was the other programming's";
}

namespace
{

constexpr const char *TOLD = "2026-01-31T11:00:10.500000Z";

told_end end_with(std::uint32_t result, const std::string &before = "2026-01-31T11:00:00.000000Z")
{
    return {.result = {be32::of(28), be32::of(result), be32::of(27), {}}, .time = TOLD, .before = before};
}

flash_event event_at(const std::string &time, flash_event_kind kind, std::optional<std::uint32_t> result = {})
{
    return {.time = time, .slot = 28, .sequence = 1, .kind = kind, .result = result};
}

using flashes = std::vector<std::vector<flash_event>>;

agent_outcome outcome_after(const std::string &time, flash_event_kind kind = flash_event_kind::ended,
                            std::uint32_t result = 0)
{
    return outcome_of(end_with(0), flashes{{event_at(time, kind, result)}});
}

} // namespace

TEST(ProgrammingOutcome, ZeroIsVerifiedWhenTheFlashsLogSaysSo)
{
    EXPECT_EQ(outcome_after("2026-01-31T11:00:10.400Z"), AGENT_OUTCOME_VERIFIED);
    EXPECT_EQ(outcome_after("2026-01-31T11:00:10.500Z"), AGENT_OUTCOME_VERIFIED);
}

TEST(ProgrammingOutcome, ZeroOfAKilledProcessIsWithoutAResult)
{
    EXPECT_EQ(outcome_of(end_with(0), flashes{}), AGENT_OUTCOME_WITHOUT_RESULT);
    EXPECT_EQ(outcome_after("2026-01-31T11:00:10.400Z", flash_event_kind::attempt), AGENT_OUTCOME_WITHOUT_RESULT);
    EXPECT_EQ(outcome_after("2026-01-31T11:00:10.400Z", flash_event_kind::ended, 0x40710009),
              AGENT_OUTCOME_WITHOUT_RESULT);
    EXPECT_EQ(outcome_after("2026-01-31T11:00:00.000Z"), AGENT_OUTCOME_WITHOUT_RESULT)
        << "of the programming before";
    EXPECT_EQ(outcome_after("2026-01-31T11:00:10.501Z"), AGENT_OUTCOME_WITHOUT_RESULT) << "of a later one";
}

TEST(ProgrammingOutcome, ZeroOfAProgrammingThatHasBegunBehindAVerifiedOneIsWithoutAResult)
{
    const flash_event verified = event_at("2026-01-31T11:00:10.100Z", flash_event_kind::ended, 0);
    const flash_event begun = event_at("2026-01-31T11:00:10.200Z", flash_event_kind::begun, 0);
    const flash_event later = event_at("2026-01-31T11:00:10.600Z", flash_event_kind::begun, 0);
    EXPECT_EQ(outcome_of(end_with(0), flashes{{verified, begun}}), AGENT_OUTCOME_WITHOUT_RESULT);
    EXPECT_EQ(outcome_of(end_with(0), flashes{{verified, begun, later}}), AGENT_OUTCOME_WITHOUT_RESULT);
    EXPECT_EQ(outcome_of(end_with(0), flashes{{verified, later}}), AGENT_OUTCOME_VERIFIED);
    EXPECT_EQ(outcome_of(end_with(0), flashes{{begun}, {verified}}), AGENT_OUTCOME_VERIFIED) << "of another flash";
}

TEST(ProgrammingOutcome, AnOldEndIsNotTheOneThatWasTold)
{
    const flashes old{{event_at("2026-01-31T10:59:29.000Z", flash_event_kind::ended, 0)}};
    EXPECT_EQ(outcome_of(end_with(0, ""), old), AGENT_OUTCOME_WITHOUT_RESULT);
    const flashes recent{{event_at("2026-01-31T10:59:38.000Z", flash_event_kind::ended, 0)}, {}};
    EXPECT_EQ(outcome_of(end_with(0, ""), recent), AGENT_OUTCOME_VERIFIED) << "behind a daemon that hangs";
}

TEST(ProgrammingOutcome, WhatTheCardHasReportedInTimeMayBeToldLate)
{
    const flash_event ended = event_at("2026-01-31T10:58:00.000Z", flash_event_kind::ended, 0);
    told_end late = end_with(0, "");
    EXPECT_EQ(outcome_of(late, flashes{{ended}}), AGENT_OUTCOME_WITHOUT_RESULT);
    late.reported = "2026-01-31T10:58:00.100000Z";
    EXPECT_EQ(outcome_of(late, flashes{{ended}}), AGENT_OUTCOME_VERIFIED);
    const flash_event next = event_at("2026-01-31T10:59:00.000Z", flash_event_kind::begun);
    EXPECT_EQ(outcome_of(late, flashes{{ended, next}}), AGENT_OUTCOME_VERIFIED) << "begun while it was not told";
    late.reported = "2026-01-31T10:59:30.000000Z";
    EXPECT_EQ(outcome_of(late, flashes{{ended, next}}), AGENT_OUTCOME_WITHOUT_RESULT);
    EXPECT_EQ(outcome_of(late, flashes{{ended}}), AGENT_OUTCOME_WITHOUT_RESULT) << "of a programming long before";
    late.reported = "2026-01-31T10:58:00.100000Z";
    late.before = "2026-01-31T10:58:00.000000Z";
    EXPECT_EQ(outcome_of(late, flashes{{ended}}), AGENT_OUTCOME_WITHOUT_RESULT) << "it was told of before";
}

TEST(ProgrammingOutcome, TheTimeIsThatOfTheFlashsEnd)
{
    const flashes both{{event_at("2026-01-31T11:00:10.400Z", flash_event_kind::ended, 0)},
                       {event_at("2026-01-31T11:00:09.400Z", flash_event_kind::ended, 0)}};
    EXPECT_EQ(flash_end_of(end_with(0), both), "2026-01-31T11:00:10Z");
    const flashes failed{{event_at("2026-01-31T11:00:05.999Z", flash_event_kind::ended, 0x40710009)}};
    EXPECT_EQ(flash_end_of(end_with(0x40710009), failed), "2026-01-31T11:00:05Z");
    EXPECT_EQ(flash_end_of(end_with(0), flashes{{event_at("2026-01-31T11:00:09.400Z", flash_event_kind::attempt)}}),
              "");
    EXPECT_EQ(flash_end_of(end_with(0), flashes{}), "");
    EXPECT_EQ(flash_end_of({}, both), "");
}

TEST(ProgrammingOutcome, OtherResultsAreFailuresAndWithoutANoticeNothingIsKnown)
{
    const flashes verified{{event_at("2026-01-31T11:00:10.400Z", flash_event_kind::ended, 0)}};
    EXPECT_EQ(outcome_of(end_with(0x40710009), verified), AGENT_OUTCOME_FAILED);
    EXPECT_EQ(outcome_of({}, verified), AGENT_OUTCOME_NONE);
}
