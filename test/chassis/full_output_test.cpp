// Output that cannot be written: each command of each program fails then and says why. The commands come from the
// programs' own help, so that a new one is noticed here.
#include <filesystem>
#include <functional>
#include <set>
#include <sstream>
#include <unistd.h>

#include "chassis_fixture.h"

namespace
{

constexpr const char *COULD_NOT = ": the output could not be written: No space left on device";

using word_list = std::vector<std::string>;

// A command and the lines that it is tried with; a command without lines prints nothing.
struct command_row {
    std::string command;
    std::vector<word_list> lines = {};
    std::function<void()> before = {};
};

word_list operator+(word_list words, const word_list &more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

word_list words_of(const std::string &text)
{
    std::istringstream stream(text);
    word_list words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

std::string text_of(const word_list &words)
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

// The commands that a program's help lists, those below another one with both names.
std::set<std::string> commands_of(const std::string &program, const std::string &above = "")
{
    const finished_program help = run_program(word_list{program} + words_of(above) + word_list{"--help"});
    EXPECT_EQ(help.exit_code, 0) << above << help.errors;
    std::set<std::string> commands;
    std::istringstream lines(help.output);
    bool listed = false;
    for (std::string line; std::getline(lines, line);) {
        if (line == "Subcommands:")
            listed = true;
        else if (line.empty())
            listed = false;
        else if (listed && line.starts_with("  ") && line[2] != ' ')
            commands.insert((above.empty() ? "" : above + " ") + words_of(line).front());
    }
    if (!above.empty())
        return commands;
    std::set<std::string> all;
    for (const std::string &command : commands) {
        const std::set<std::string> below = commands_of(program, command);
        all.insert(command);
        all.insert(below.begin(), below.end());
    }
    return all;
}

finished_program with_full_output(const word_list &words)
{
    return run_program(word_list{"sh", "-c", "exec \"$@\" >/dev/full", "sh"} + words);
}

void expect_failure(const word_list &words, const std::string &program)
{
    const finished_program finished = with_full_output(words);
    EXPECT_GT(finished.exit_code, 0) << text_of(words);
    EXPECT_NE(finished.errors.find(program + COULD_NOT), std::string::npos)
        << text_of(words) << " says: " << finished.errors;
}

void expect_rows_of_all_commands(const std::string &program, const std::vector<command_row> &rows)
{
    std::set<std::string> tried;
    for (const command_row &row : rows)
        tried.insert(row.command);
    EXPECT_EQ(commands_of(program), tried) << "each command of " << program << " belongs into the table";
}

class FullOutput : public chassis_test
{
protected:
    void SetUp() override
    {
        const std::string loader = made("loader", {"loader", "--version", "1.7.3"});
        insert({.slot = 1, .boot_loader = loader, .ks_image = loader});
        up();
    }
    // A file that bios_image makes.
    std::string made(const std::string &name, const word_list &words) const
    {
        const std::string path = workspace() + "/" + name;
        const finished_program finished =
            run_program(word_list{BIOS_IMAGE_PROGRAM} + words + word_list{"--output", path});
        EXPECT_EQ(finished.exit_code, 0) << finished.errors;
        return path;
    }
    void expect_failures(const std::string &name, const std::string &path, const word_list &options,
                         const std::vector<command_row> &rows, const word_list &form) const
    {
        for (const command_row &row : rows) {
            if (row.before)
                row.before();
            for (const word_list &line : row.lines)
                expect_failure(word_list{path} + options + words_of(row.command) + line + form, name);
            expect_failure(word_list{path} + options + words_of(row.command) + word_list{"--help"}, name);
        }
    }
};

} // namespace

TEST_F(FullOutput, FailsEachCommandOfBiosctl)
{
    const std::string system = on_bootflash(1, "system.bin");
    ASSERT_EQ(run_program({BIOS_IMAGE_PROGRAM, "system", "--output", system, "--loader",
                           made("next", {"loader", "--version", "1.8.0"})})
                  .exit_code,
              0);
    const std::string fetched = workspace() + "/fetched";
    std::unique_ptr<running_program> ordered;
    const auto order = [&] {
        keep_pauses(1);
        ordered = std::make_unique<running_program>(biosctl_words({"program", "1"}));
        ASSERT_TRUE(wait_until([&] { return child_pid(1) != 0; }));
    };
    std::vector<command_row> rows = {
        {.command = "show", .lines = {{}}},
        {.command = "audit", .lines = {{}}},
        {.command = "source", .lines = {{}}},
        {.command = "sync", .lines = {{"--dry-run"}}},
        {.command = "cancel", .lines = {{"1"}}, .before = order},
        {.command = "program", .lines = {{"1", "--dry-run"}, {"1"}}, .before = [&] { (void)ordered->wait(); }},
        {.command = "watch", .lines = {{"--once"}, {"--for", "30"}}},
        {.command = "events", .lines = {{}, {"--follow"}}},
        {.command = "metrics", .lines = {{}}},
        {.command = "loader"},
        {.command = "loader install", .lines = {{"bootflash:system.bin"}}},
        {.command = "loader get", .lines = {{"--output", fetched, "--force"}}},
        {.command = "loader ks", .lines = {{"--output", fetched, "--force"}}},
        {.command = "lock", .lines = {{"1"}}},
        {.command = "unlock", .lines = {{"1"}}},
        {.command = "explain", .lines = {{"0"}}},
    };
    expect_rows_of_all_commands(BIOSCTL_PROGRAM, rows);
    if (::geteuid() != 0) // a card of an ordinary user has no boot loader to show
        std::erase_if(rows, [](const command_row &row) { return row.command.starts_with("loader"); });
    const word_list options = {"--dir", chassis_directory()};
    expect_failures("biosctl", BIOSCTL_PROGRAM, options, rows, {});
    write_file(flash_file(1, "data"), old_image().bytes);
    expect_failures("biosctl", BIOSCTL_PROGRAM, options, rows, {"--json"});
    for (const char *word : {"--help", "--version"}) {
        expect_failure({BIOSCTL_PROGRAM, word}, "biosctl");
        expect_failure({BIOSCTL_PROGRAM, word, "--json"}, "biosctl");
    }
    expect_failure({BIOSCTL_PROGRAM, "no-command", "--json"}, "biosctl");
}

TEST_F(FullOutput, FailsEachCommandOfTheLauncher)
{
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, 0);
    const std::vector<command_row> rows = {
        {.command = "init"},
        {.command = "up"},
        {.command = "down"},
        {.command = "restart"},
        {.command = "status", .lines = {{}, {"--json"}}},
        {.command = "families", .lines = {{}, {"--json"}}},
        {.command = "log", .lines = {{"1"}, {"1", "--follow"}}},
        {.command = "debug", .lines = {{"1"}, {"1", "+all", "--follow"}}},
        {.command = "history", .lines = {{"1"}, {"1", "--json"}}},
    };
    expect_rows_of_all_commands(CHASSIS_PROGRAM, rows);
    expect_failures("chassis", CHASSIS_PROGRAM, {"--dir", chassis_directory()}, rows, {});
    expect_failure({CHASSIS_PROGRAM, "--help"}, "chassis");
    for (const word_list &silent : {word_list{"restart", "1", "--upgrade"}, {"down"}, {"up"}})
        EXPECT_EQ(chassis(silent).output, "") << silent.front() << " prints something and has no line above";
}

TEST_F(FullOutput, FailsEachCommandOfTheImageTool)
{
    const std::string plain =
        made("plain", {"build", "--version", "3.5", "--date", "09/17/12", "--size", "64K", "--family", "x86n"});
    const std::string secret = workspace() + "/secret";
    const std::string public_half = workspace() + "/public";
    const std::vector<command_row> rows = {
        {.command = "build"},
        {.command = "manifest"},
        {.command = "keygen", .lines = {{"--secret", secret, "--public", public_half}}},
        {.command = "sign"},
        {.command = "verify",
         .lines = {{"--key", public_half, "--image", workspace() + "/signed"}},
         .before =
             [&] {
                 (void)made("signed", {"sign", "--key", secret, "--image", plain});
             }},
        {.command = "loader"},
        {.command = "system"},
        {.command = "tree"},
        {.command = "show", .lines = {{plain}, {workspace() + "/signed"}}},
    };
    expect_rows_of_all_commands(BIOS_IMAGE_PROGRAM, rows);
    expect_failures("bios_image", BIOS_IMAGE_PROGRAM, {}, rows, {});
    expect_failure({BIOS_IMAGE_PROGRAM, "--help"}, "bios_image");
}
