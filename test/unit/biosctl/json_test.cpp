// With --json every command prints one JSON object on standard output and nothing else there.
#include <algorithm>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "biosctl_daemons.h"

namespace
{

constexpr const char *OLD = "v3.1.0(02/11/11)";
constexpr const char *NEW = "v3.5.0(09/17/12)";

using words = std::vector<std::string>;

struct command_line {
    words success;
    int success_code; // of "success" below
    words misuse;
    bool in_chassis = true;
    bool asks_daemon = true;
};

// A row for each command of the program's help, but for watch and events, which print an object per line.
std::vector<command_line> command_lines(const std::string &folder)
{
    return {
        {{"show"}, 0, {"show", "0"}},
        {{"audit", "27"}, 1, {"audit", "x"}},
        {{"source"}, 0, {"source", "--image", "name"}, true, false},
        {{"program", "27"}, 0, {"program"}},
        {{"program", "all"}, 0, {"program", "all", "--via", "28"}},
        {{"cancel", "27"}, 2, {"cancel"}, true, false},
        {{"sync", "27"}, 0, {"sync", "--frob"}},
        {{"sync", "27", "--dry-run"}, 0, {"sync", "233"}},
        {{"metrics", "27"}, 0, {"metrics", "0"}, true, false},
        {{"loader", "install", "bootflash:a"}, 0, {"loader", "install"}},
        {{"loader", "get", "--output", folder + "/get"}, 0, {"loader", "get"}},
        {{"loader", "ks", "--output", folder + "/ks"}, 0, {"loader", "ks", "--size", "x"}},
        {{"lock", "27"}, 0, {"lock"}, true, false},
        {{"unlock", "27"}, 0, {"unlock", "27", "28"}, true, false},
        {{"explain", "0x40710009"}, 0, {"explain", "0xg"}, false},
    };
}

words with(const std::string &folder, words line)
{
    line.insert(line.begin(), {"--dir", folder});
    line.push_back("--json");
    return line;
}

// The one object on standard output.
nlohmann::json only_object(biosctl_run &run, int exit_code, const words &line)
{
    const std::string shown = testing::PrintToString(line);
    EXPECT_EQ(run.exit_code(), exit_code) << shown << run.out() << run.err();
    const auto told = nlohmann::json::parse(run.out(), nullptr, false);
    EXPECT_TRUE(told.is_object()) << shown << run.out();
    if (told.is_object()) {
        EXPECT_EQ(told["exit_code"], exit_code) << shown;
        EXPECT_EQ(told.contains("error"), exit_code != 0 && exit_code != 2) << shown;
    }
    return told;
}

std::vector<std::string> commands_in_help()
{
    biosctl_run run({"--help"});
    EXPECT_EQ(run.exit_code(), 0);
    std::vector<std::string> names;
    std::istringstream lines(run.out().substr(run.out().find("Subcommands:")));
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line) && line.starts_with("  ")) {
        const std::string name = line.substr(2, line.find(' ', 2) - 2);
        if (!name.empty())
            names.push_back(name);
    }
    return names;
}

} // namespace

TEST(Json, EveryCommandIsWalked)
{
    const auto lines = command_lines("/nowhere");
    const auto names = commands_in_help();
    EXPECT_GE(names.size(), 9u);
    for (const std::string &name : names) {
        const bool walked = std::any_of(lines.begin(), lines.end(),
                                        [&](const command_line &line) { return line.success.front() == name; });
        EXPECT_TRUE(walked || name == "watch" || name == "events") << name; // an object a line
    }
}

TEST(Json, SuccessIsOneObject)
{
    const test_chassis chassis;
    std::filesystem::remove_all(chassis.path() + "/inventory/28");
    for (const command_line &line : command_lines(chassis.path())) {
        healthy_card card{
            .flashes = {{27, OLD}, {5, OLD}}, .running = OLD, .shipped = NEW, .loader_file = "loader"};
        chassis.card_holds(27, OLD, OLD);
        const scripted_daemon daemon(chassis, 27, healthy(card));
        biosctl_run run(with(chassis.path(), line.success));
        (void)only_object(run, line.success_code, line.success);
    }
}

TEST(Json, AUsageErrorIsOneObject)
{
    const test_chassis chassis;
    for (const command_line &line : command_lines(chassis.path())) {
        biosctl_run run(with(chassis.path(), line.misuse));
        (void)only_object(run, 64, line.misuse);
        EXPECT_EQ(run.err(), "");
    }
}

TEST(Json, AMissingChassisIsOneObject)
{
    const test_chassis folder;
    for (const command_line &line : command_lines(folder.path())) {
        biosctl_run run(with("/nonexistent/chassis", line.success));
        (void)only_object(run, line.in_chassis ? 3 : 0, line.success);
        EXPECT_EQ(run.err(), "");
    }
}

TEST(Json, ADaemonThatIsNotUpIsOneObject)
{
    const test_chassis chassis;
    for (const command_line &line : command_lines(chassis.path())) {
        biosctl_run run(with(chassis.path(), line.success));
        (void)only_object(run, line.in_chassis && line.asks_daemon ? 1 : line.success_code, line.success);
    }
}

TEST(Json, HelpIsOneObject)
{
    for (const words &line :
         {words{"--help", "--json"}, {"program", "--help", "--json"}, {"--json", "sync", "-h"}}) {
        biosctl_run run(line);
        const auto told = only_object(run, 0, line);
        EXPECT_NE(told["help"].get<std::string>().find("Options:"), std::string::npos);
    }
}

TEST(Json, VersionIsOneObject)
{
    biosctl_run text({"--version"});
    EXPECT_EQ(text.exit_code(), 0);
    EXPECT_TRUE(text.out().starts_with("biosctl ")) << text.out();
    const words line = {"--version", "--json"};
    biosctl_run run(line);
    const auto told = only_object(run, 0, line);
    EXPECT_EQ("biosctl " + told["version"].get<std::string>() + "\n", text.out());
}

TEST(Json, ExplainTellsTheExitCodeOfItselfAndOfACommandThatGetsTheCode)
{
    const std::tuple<const char *, int, int> codes[] = {
        {"0x40710009", 0, 1}, {"0x40530002", 0, 2}, {"0x4071000a", 0, 4}, {"0x12345678", 3, 1}};
    for (const auto &[code, own, of_code] : codes) {
        biosctl_run run({"explain", code, "--json"});
        EXPECT_EQ(run.exit_code(), own);
        const auto told = nlohmann::json::parse(run.out(), nullptr, false);
        ASSERT_TRUE(told.is_object()) << run.out();
        EXPECT_EQ(told["exit_code"], own);
        EXPECT_EQ(told["exit"], of_code);
    }
}
