// Version texts and what they say about a flash.
#include <gtest/gtest.h>

#include "verdict.h"

namespace
{

constexpr const char *OLD = "v3.1.0(02/11/11)";
constexpr const char *NEW = "v3.5.0(09/17/12)";
constexpr const char *GARBAGE = "v3.5(09/17/12)";
constexpr const char *NONE = "";

std::string judged(const version_facts &facts)
{
    return verdict_name(judge(facts));
}

} // namespace

TEST(ParseVersion, ReadsThreeNumbersAndADate)
{
    const auto version = parse_version("v3.5.0(09/17/12)");
    ASSERT_TRUE(version);
    EXPECT_EQ(version->number, (std::array<unsigned, 3>{3, 5, 0}));
    EXPECT_EQ(version->date, "09/17/12");
}

TEST(ParseVersion, ReadsFromTheFirstVOfATextWithAPrefix)
{
    const auto version = parse_version("BIOS v2.10.9999(-1/02/03) x");
    ASSERT_TRUE(version);
    EXPECT_EQ(version->number, (std::array<unsigned, 3>{2, 10, 9999}));
    EXPECT_EQ(version->date, "-1/02/03");
}

TEST(ParseVersion, RefusesEverythingElse)
{
    for (const char *text :
         {"", "v", "3.5.0(09/17/12)", "v3.5.0", "v3.5.0(", "v3.5.0(09/17/12", "v3.5(09/17/12)", "v3.5.0.1(x)",
          "v.5.0(x)", "v3..0(x)", "v3.5.(x)", "vA.5.0(x)", "v-3.5.0(x)", "v+3.5.0(x)", "v3 .5.0(x)",
          "v12345.5.0(x)", "v3.5.00000(x)", "???????????", "v v3.5.0(x)"})
        EXPECT_FALSE(parse_version(text)) << "'" << text << "'";
}

TEST(Judge, EveryPairOfImageAndFlash)
{
    struct {
        const char *flash;
        const char *source;
        const char *expected;
    } const pairs[] = {
        {NONE, NONE, "unknown"},   {NONE, GARBAGE, "unknown"}, {NONE, OLD, "unknown"},
        {NONE, NEW, "unknown"},    {GARBAGE, NONE, "unknown"}, {GARBAGE, GARBAGE, "unknown"},
        {GARBAGE, OLD, "unknown"}, {GARBAGE, NEW, "unknown"},  {OLD, NONE, "unknown"},
        {OLD, GARBAGE, "unknown"}, {OLD, OLD, "in step"},      {OLD, NEW, "update available"},
        {NEW, NONE, "unknown"},    {NEW, GARBAGE, "unknown"},  {NEW, OLD, "newer than shipped"},
        {NEW, NEW, "in step"},
    };
    for (const auto &pair : pairs)
        EXPECT_EQ(judged({.flash = pair.flash, .running = pair.flash, .source = pair.source}), pair.expected)
            << "flash '" << pair.flash << "', image '" << pair.source << "'";
}

TEST(Judge, EveryPairOfFlashAndRunning)
{
    struct {
        const char *flash;
        const char *running;
        const char *expected; // with the new image
    } const pairs[] = {
        {NONE, NONE, "unknown"},   {NONE, GARBAGE, "unknown"},     {NONE, OLD, "unknown"},
        {NONE, NEW, "unknown"},    {GARBAGE, NONE, "unknown"},     {GARBAGE, GARBAGE, "unknown"},
        {GARBAGE, OLD, "unknown"}, {GARBAGE, NEW, "unknown"},      {OLD, NONE, "unknown"},
        {OLD, GARBAGE, "unknown"}, {OLD, OLD, "update available"}, {OLD, NEW, "reboot pending"},
        {NEW, NONE, "unknown"},    {NEW, GARBAGE, "unknown"},      {NEW, OLD, "reboot pending"},
        {NEW, NEW, "in step"},
    };
    for (const auto &pair : pairs)
        EXPECT_EQ(judged({.flash = pair.flash, .running = pair.running, .source = NEW}), pair.expected)
            << "flash '" << pair.flash << "', running '" << pair.running << "'";
}

TEST(Judge, ARebootIsPendingWhateverTheImageIs)
{
    for (const char *source : {NONE, GARBAGE, OLD, NEW, "v9.0.0(x)"})
        EXPECT_EQ(judged({.flash = NEW, .running = OLD, .source = source}), "reboot pending") << source;
}

TEST(Judge, WhatForbidsAJudgementGoesFirst)
{
    for (const char *flash : {NONE, GARBAGE, OLD, NEW}) {
        for (const char *running : {NONE, GARBAGE, OLD, NEW}) {
            version_facts facts{.being_programmed = true,
                                .not_verified = true,
                                .reachable = false,
                                .confirmed = false,
                                .flash = flash,
                                .running = running,
                                .source = NEW};
            EXPECT_EQ(judged(facts), "being programmed");
            facts.being_programmed = false;
            EXPECT_EQ(judged(facts), "not verified: do not reboot");
            facts.not_verified = false;
            EXPECT_EQ(judged(facts), "unreachable");
            facts.reachable = true;
            EXPECT_EQ(judged(facts), "unconfirmed");
            facts.confirmed = true;
            facts.changed = true;
            EXPECT_EQ(judged(facts), "changed since it was programmed");
        }
    }
}

TEST(Judge, NumbersAreComparedAsNumbersFromTheFirstOn)
{
    const auto against = [](const char *flash, const char *source) {
        return judged({.flash = flash, .running = flash, .source = source});
    };
    EXPECT_EQ(against("v3.9.0(x)", "v3.10.0(x)"), "update available");
    EXPECT_EQ(against("v3.10.0(x)", "v3.9.9(x)"), "newer than shipped");
    EXPECT_EQ(against("v2.9.9(x)", "v3.0.0(x)"), "update available");
    EXPECT_EQ(against("v3.5.1(x)", "v3.5.2(x)"), "update available");
    EXPECT_EQ(against("v03.5.0(x)", "v3.5.0(x)"), "in step");
}

TEST(Judge, TheDateTellsBuildsApartInACardButNotAgainstTheImage)
{
    EXPECT_EQ(judged({.flash = "v3.5.0(a)", .running = "v3.5.0(a)", .source = "v3.5.0(b)"}), "in step");
    EXPECT_EQ(judged({.flash = "v3.5.0(a)", .running = "v3.5.0(b)", .source = "v3.5.0(a)"}), "reboot pending");
}

TEST(VerdictRows, StandInTheOrderOfTheirKinds)
{
    std::size_t k = 0;
    for (const verdict_row &row : verdict_rows()) {
        EXPECT_EQ(static_cast<std::size_t>(row.kind), k++) << row.name;
        EXPECT_LE(std::string(row.name).size(), 31u) << row.name;
        EXPECT_LE(std::string(row.name).size() + 2 + std::string(row.advice.text).size(), 80u) << row.name;
    }
    EXPECT_EQ(k, 10u);
}
