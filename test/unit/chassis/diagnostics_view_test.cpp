// What the launcher makes of a card's debug categories and of its history.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "debug_view.h"
#include "history_view.h"

namespace
{

using words = std::vector<std::string>;

constexpr std::uint64_t TIME_NS = 1795228194053586999; // 2026-11-21T02:29:54.053586999Z

std::vector<chassis_history_event> events(std::uint64_t first, std::uint64_t last)
{
    std::vector<chassis_history_event> all;
    for (std::uint64_t sequence = first; sequence <= last; ++sequence)
        all.push_back({sequence, TIME_NS, 2, 0x730000, "event " + std::to_string(sequence)});
    return all;
}

// Debug categories

TEST(DebugWords, AreSwitchesOfKnownCategories)
{
    for (const char *word : {"+errors", "-errors", "+warnings", "-warnings", "+info", "-info", "+all", "-all"})
        EXPECT_EQ(debug_word_problem(word), "") << word;
    for (const char *word :
         {"", "+", "-", "--", "+loud", "-loud", "loud", "+INFO", "+info ", "--info", "++info", "-i"})
        EXPECT_NE(debug_word_problem(word).find("no such debug category; there are errors, warnings, info and all"),
                  std::string::npos)
            << word;
    EXPECT_EQ(debug_word_problem("info"), "info: say +info to switch it on or -info to switch it off");
    EXPECT_EQ(debug_word_problem("all"), "all: say +all to switch it on or -all to switch it off");
}

TEST(DebugWords, AreObeyedInTheirOrder)
{
    EXPECT_EQ(switched_categories({}, {}), words{});
    EXPECT_EQ(switched_categories({"info"}, {}), words{"info"});
    EXPECT_EQ(switched_categories({"info"}, {"+errors"}), (words{"errors", "info"}));
    EXPECT_EQ(switched_categories({"info"}, {"+info", "+info"}), words{"info"});
    EXPECT_EQ(switched_categories({"info"}, {"-warnings", "-info"}), words{});
    EXPECT_EQ(switched_categories({}, {"+all"}), (words{"errors", "warnings", "info"}));
    EXPECT_EQ(switched_categories({"errors"}, {"-all", "+warnings"}), words{"warnings"});
    EXPECT_EQ(switched_categories({"errors"}, {"+warnings", "-all"}), words{});
    EXPECT_EQ(switched_categories({}, {"+all", "-errors", "-info"}), words{"warnings"});
}

// History

TEST(HistoryView, LineTellsTimeProcessAndText)
{
    EXPECT_EQ(history_text(1, {{1, TIME_NS, 4711, 0x730000, "main.cpp:12 started\n"}}, std::nullopt, false),
              "2026-11-21T02:29:54.053586Z [4711] main.cpp:12 started\n");
}

TEST(HistoryView, TextIsPrintableAsciiAndCanBeReadBack)
{
    EXPECT_EQ(escaped_text("plain text ~!"), "plain text ~!");
    EXPECT_EQ(escaped_text("a\nb\rc\td"), "a\\nb\\rc\\td");
    EXPECT_EQ(escaped_text("\x1b[2J\x7f\x01\x9b"), "\\x1b[2J\\x7f\\x01\\x9b");
    EXPECT_EQ(escaped_text("\\x1b"), "\\\\x1b");
    EXPECT_EQ(escaped_text("\xc3\xa4"), "\\xc3\\xa4");
    std::string every;
    for (unsigned code = 1; code < 256; ++code)
        every += static_cast<char>(code);
    for (const char character : escaped_text(every))
        EXPECT_TRUE(character >= 0x20 && character < 0x7f) << unsigned{static_cast<unsigned char>(character)};
}

TEST(HistoryView, NewlineInATextForgesNoLine)
{
    const std::string text = history_text(1, {{1, TIME_NS, 2, 0x730000, "first\nforged\n\n"}}, std::nullopt, false);
    EXPECT_EQ(text, "2026-11-21T02:29:54.053586Z [2] first\\nforged\n");
    EXPECT_EQ(history_text(1, {{1, TIME_NS, 2, 0x730000, "\n"}}, std::nullopt, false),
              "2026-11-21T02:29:54.053586Z [2] \n");
}

TEST(HistoryView, OldestComesFirstAndLastIsTheEnd)
{
    const std::string time = "2026-11-21T02:29:54.053586Z [2] ";
    EXPECT_EQ(history_text(1, events(1, 3), std::nullopt, false),
              time + "event 1\n" + time + "event 2\n" + time + "event 3\n");
    EXPECT_EQ(history_text(1, events(1, 3), 2, false), time + "event 2\n" + time + "event 3\n");
    EXPECT_EQ(history_text(1, events(1, 3), 3, false), history_text(1, events(1, 3), std::nullopt, false));
    EXPECT_EQ(history_text(1, events(1, 3), 1'000'000, false), history_text(1, events(1, 3), std::nullopt, false));
    EXPECT_EQ(history_text(1, {}, 2, false), "");
}

TEST(HistoryView, TellsHowManyEventsWereOverwritten)
{
    EXPECT_TRUE(history_text(1, events(477, 1500), std::nullopt, false)
                    .starts_with("(476 earlier events were overwritten)\n2026-"));
    EXPECT_TRUE(history_text(1, events(2, 3), 1, false).starts_with("(1 earlier events were overwritten)\n"));
    EXPECT_TRUE(history_text(1, events(1, 3), 1, false).starts_with("2026-"));
}

TEST(HistoryView, JsonHasEveryFieldAndTheWholeText)
{
    const auto history = nlohmann::json::parse(history_text(7, events(477, 1500), 3, true));
    EXPECT_EQ(history["slot"], 7);
    EXPECT_EQ(history["overwritten"], 476);
    ASSERT_EQ(history["events"].size(), 3U);
    EXPECT_EQ(history["events"][0], nlohmann::json({{"sequence", 1498},
                                                    {"time", "2026-11-21T02:29:54.053586Z"},
                                                    {"pid", 2},
                                                    {"event_type", 0x730000},
                                                    {"text", "event 1498"}}));
    const auto none = nlohmann::json::parse(history_text(7, {}, std::nullopt, true));
    EXPECT_EQ(none["overwritten"], 0);
    EXPECT_EQ(none["events"], nlohmann::json::array());
}

TEST(HistoryView, JsonOfHostileTextsIsPrintableAscii)
{
    const std::string hostile = "a\n\x1b[2J\x7f\xff\xc3\xa4\xc2\x9b";
    const std::string text = history_text(1, {{1, TIME_NS, 2, 0x730000, hostile}}, std::nullopt, true);
    for (const char character : text)
        EXPECT_TRUE(character == '\n' || (character >= 0x20 && character < 0x7f))
            << unsigned{static_cast<unsigned char>(character)};
    EXPECT_EQ(nlohmann::json::parse(text)["events"][0]["text"], "a\n\x1b[2J\x7f\xef\xbf\xbd\xc3\xa4\xc2\x9b");
}

} // namespace
