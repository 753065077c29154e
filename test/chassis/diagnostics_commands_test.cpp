// chassis debug and chassis history on cards that run.
#include <csignal>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "bios_opcodes.h"
#include "chassis_fixture.h"
#include "version_messages.h"

namespace
{

namespace files = std::filesystem;

constexpr const char *REQUEST_LINE = "Got an MTS msg rc=0 opc=4790";
constexpr const char *CHILDS_LINE = "Got retcode = 0 from programming request";
constexpr unsigned RING_EVENTS = 1024;

bool says(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

class DiagnosticsCommands : public chassis_test
{
protected:
    void start()
    {
        insert({.slot = 1});
        up();
        asking_.emplace();
    }
    // A request that the daemon logs before it answers.
    void ask()
    {
        EXPECT_EQ(asking_->ask(1, MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(1)).error, 0);
    }
    requester &asking() { return *asking_; }

    std::string debug_output() const
    {
        const std::string path = slot_file(1, "debug/output");
        return files::exists(path) ? file_content(path) : std::string();
    }
    void expect_on(const std::vector<std::string> &words, const std::string &categories) const
    {
        std::vector<std::string> all{"debug", "1"};
        all.insert(all.end(), words.begin(), words.end());
        const finished_program finished = chassis(all);
        EXPECT_EQ(finished.exit_code, 0) << finished.errors;
        EXPECT_EQ(finished.output, "card 1: debug categories on: " + categories + "\n");
    }
    nlohmann::json history(const std::vector<std::string> &words = {}) const
    {
        std::vector<std::string> all{"history", "1", "--json"};
        all.insert(all.end(), words.begin(), words.end());
        const finished_program finished = chassis(all);
        EXPECT_EQ(finished.exit_code, 0) << finished.errors;
        return nlohmann::json::parse(finished.output);
    }

private:
    std::optional<requester> asking_;
};

} // namespace

TEST_F(DiagnosticsCommands, CategoryTakesEffectAtTheNextLogLineOfTheRunningDaemon)
{
    start();
    const pid_t daemon = daemon_pid(1);
    ask();
    expect_on({}, "none");
    EXPECT_EQ(debug_output(), "");
    expect_on({"+info"}, "info");
    ask();
    EXPECT_TRUE(says(debug_output(), REQUEST_LINE)) << debug_output();
    expect_on({"-info"}, "none");
    ask(); // after its answer no line of an earlier request is on its way any more
    const std::string before = debug_output();
    const unsigned logged = lines_with(1, REQUEST_LINE);
    ask();
    EXPECT_EQ(lines_with(1, REQUEST_LINE), logged + 1);
    EXPECT_EQ(debug_output(), before);
    EXPECT_EQ(daemon_pid(1), daemon);
}

TEST_F(DiagnosticsCommands, WordsOfBothSignsAreTakenInTheirOrder)
{
    start();
    expect_on({"+all"}, "errors, warnings, info");
    expect_on({"-errors"}, "warnings, info");
    expect_on({"-warnings", "-info"}, "none");
    expect_on({"-all", "+info", "+errors"}, "errors, info");
    expect_on({"+warnings", "-all"}, "none");
    expect_on({"+all", "-info"}, "errors, warnings");
    const finished_program sign_first = chassis({"debug", "-errors", "1"});
    EXPECT_EQ(sign_first.exit_code, 0) << sign_first.errors;
    expect_on({}, "warnings");
}

TEST_F(DiagnosticsCommands, UnknownCategoryIsAUsageErrorAndChangesNothing)
{
    start();
    expect_on({"+warnings"}, "warnings");
    for (const char *word : {"+loud", "-loud", "info", "--loud", "status", "-"}) {
        const finished_program finished = chassis({"debug", "1", "+info", word});
        EXPECT_EQ(finished.exit_code, 64) << word;
        EXPECT_TRUE(says(finished.errors, word)) << finished.errors;
        EXPECT_EQ(finished.output, "");
    }
    EXPECT_TRUE(says(chassis({"debug", "1", "+loud"}).errors, "there are errors, warnings, info and all"));
    EXPECT_EQ(chassis({"debug"}).exit_code, 64);
    EXPECT_EQ(chassis({"debug", "+info"}).exit_code, 64);
    expect_on({}, "warnings");
}

TEST_F(DiagnosticsCommands, CardsWithoutADaemonHaveNeither)
{
    insert({.slot = 3, .role = "none", .in_tree = nullptr, .kind = "linecard", .answers = "full"});
    insert({.slot = 4, .role = "none", .in_tree = nullptr, .serves = false, .kind = "linecard"});
    start();
    for (const char *slot : {"3", "4", "5"}) {
        const finished_program debug = chassis({"debug", slot, "+info"});
        EXPECT_EQ(debug.exit_code, 1) << slot;
        EXPECT_TRUE(says(debug.errors, "slot " + std::string(slot) + ": ")) << debug.errors;
        EXPECT_FALSE(files::exists(slot_file(static_cast<unsigned>(std::stoi(slot)), "debug/flags")));
        EXPECT_EQ(chassis({"history", slot}).exit_code, 1) << slot;
    }
    EXPECT_TRUE(says(chassis({"history", "3"}).errors, "has no history yet; it never ran the daemon"));
}

TEST_F(DiagnosticsCommands, CategoriesOfACardThatIsDownHoldFromItsNextStart)
{
    start();
    ASSERT_EQ(chassis({"down"}).exit_code, 0);
    expect_on({"+info"}, "info (the card is down)");
    const finished_program restarted = chassis({"up"});
    ASSERT_EQ(restarted.exit_code, 0) << restarted.errors;
    EXPECT_TRUE(says(debug_output(), "Going to infinite-loop")) << debug_output();
}

TEST_F(DiagnosticsCommands, FollowShowsLinesFromNowOnAlsoPastATurnover)
{
    start();
    expect_on({"+info"}, "info");
    ask();
    ASSERT_TRUE(says(debug_output(), REQUEST_LINE));
    running_program following({CHASSIS_PROGRAM, "--dir", chassis_directory(), "debug", "1", "--follow"});
    ASSERT_TRUE(wait_until([&] { return says(following.output(), "debug categories on: info"); }));
    EXPECT_FALSE(says(following.output(), REQUEST_LINE)) << "a line from before";
    ask();
    EXPECT_TRUE(wait_until([&] { return says(following.output(), REQUEST_LINE); })) << following.errors();
    files::rename(slot_file(1, "debug/output"), slot_file(1, "debug/output.1"));
    EXPECT_EQ(asking().ask(1, MTS_OPC_BIOS_GET_LC_BIOS_VERSION, "ABCD").error, 0);
    EXPECT_TRUE(wait_until([&] { return says(following.output(), "opc=4794"); })) << following.output();
    following.signal(SIGINT);
    (void)following.wait();
    expect_on({}, "info"); // leaving changes nothing
}

TEST_F(DiagnosticsCommands, LogIsPrintedWholeAndFollowed)
{
    start();
    const finished_program log = chassis({"log", "1"});
    EXPECT_EQ(log.exit_code, 0) << log.errors;
    EXPECT_EQ(log.output, log_of(1));
    running_program following({CHASSIS_PROGRAM, "--dir", chassis_directory(), "log", "1", "--follow"});
    ASSERT_TRUE(wait_until([&] { return following.output() == log.output; })) << following.errors();
    ask();
    EXPECT_TRUE(wait_until([&] { return says(following.output(), REQUEST_LINE); })) << following.errors();
    following.signal(SIGINT);
    (void)following.wait();
}

TEST_F(DiagnosticsCommands, HistoryShowsTheLinesOfARequest)
{
    start();
    ask();
    const finished_program all = chassis({"history", "1"});
    ASSERT_EQ(all.exit_code, 0) << all.errors;
    EXPECT_TRUE(says(all.output, REQUEST_LINE)) << all.output;
    const std::regex form(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z \[\d+\] .*)");
    std::string earlier;
    for (const std::string &line : lines_of(all.output)) {
        ASSERT_TRUE(std::regex_match(line, form)) << line;
        EXPECT_LE(earlier, line.substr(0, 27)) << "not the oldest first";
        earlier = line.substr(0, 27);
    }
    const std::string last = chassis({"history", "1", "--last", "2"}).output;
    EXPECT_EQ(lines_of(last).size(), 2U);
    EXPECT_TRUE(all.output.ends_with(last));
    EXPECT_EQ(history({"--last", "3"})["events"].size(), 3U);
    EXPECT_EQ(chassis({"history", "1", "--last", "0"}).exit_code, 64);
}

TEST_F(DiagnosticsCommands, HistoryTellsHowManyEventsWereOverwritten)
{
    start();
    EXPECT_EQ(history()["overwritten"], 0);
    while (history({"--last", "1"})["events"][0]["sequence"] <= RING_EVENTS) {
        for (unsigned number = 0; number < 20; ++number)
            ask();
    }
    const nlohmann::json ring = history();
    ASSERT_EQ(ring["events"].size(), RING_EVENTS);
    const unsigned overwritten = ring["overwritten"];
    EXPECT_GT(overwritten, 0U);
    EXPECT_EQ(ring["events"][0]["sequence"], overwritten + 1);
    EXPECT_TRUE(chassis({"history", "1"})
                    .output.starts_with("(" + std::to_string(overwritten) + " earlier events were overwritten)\n"));
}

TEST_F(DiagnosticsCommands, HistoryOfHostileTextsIsPrintable)
{
    start();
    const std::string hostile = "/bootflash/\x1b[2J\nforged\xff";
    EXPECT_EQ(asking()
                  .ask(1, MTS_OPC_BIOS_GET_SRC_BIOS_VERSION, source_version_request(false, hostile, NO_NOTICES))
                  .error,
              0);
    const std::string text = chassis({"history", "1"}).output;
    EXPECT_TRUE(says(text, "/bootflash/?[2J?forged?")) << text;
    for (const char character : text)
        ASSERT_TRUE(character == '\n' || (character >= 0x20 && character < 0x7f));
}

TEST_F(DiagnosticsCommands, BothShowTheChildOfAProgrammingUnderWay)
{
    start();
    write_file(flash_file(1, "timing"), "1\n"); // a real part's erases: there is time to look on
    programming seen = asking().start(1);
    ASSERT_EQ(seen.error, 0);
    ASSERT_TRUE(asking().await_progress(
        seen, [](const programming &so_far) { return !so_far.progress.empty(); }, std::chrono::seconds(60)));
    expect_on({"+info"}, "info");
    std::set<unsigned> processes;
    const nlohmann::json so_far = history();
    for (const nlohmann::json &event : so_far["events"])
        processes.insert(event["pid"].get<unsigned>());
    EXPECT_EQ(processes.size(), 2U) << "the daemon's and its child's";
    asking().await_end(seen);
    expect_programmed(seen, 1, new_image());
    EXPECT_TRUE(says(debug_output(), CHILDS_LINE)) << debug_output();
    EXPECT_TRUE(says(chassis({"history", "1"}).output, CHILDS_LINE));
    expect_on({"-all"}, "none");
    expect_tidy(1);
}
