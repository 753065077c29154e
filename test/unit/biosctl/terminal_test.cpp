// What goes to a terminal and what to anything else: lines that are wrapped, and escape sequences only where they
// are understood. The built program runs on a terminal of its own.
#include <algorithm>
#include <pty.h>
#include <sstream>

#include <gtest/gtest.h>

#include "biosctl_chassis.h"

namespace
{

// Runs the built program on a terminal of a kind and width.
class terminal_run
{
public:
    terminal_run(const std::string &kind, unsigned short columns, const std::vector<std::string> &words)
    {
        winsize size{.ws_row = 24, .ws_col = columns, .ws_xpixel = 0, .ws_ypixel = 0};
        int terminal = -1;
        pid_ = ::forkpty(&terminal, nullptr, nullptr, &size);
        if (pid_ == 0) {
            (void)::setenv("TERM", kind.c_str(), 1);
            ::unsetenv("CHASSIS_DIR");
            std::vector<char *> arguments{const_cast<char *>("biosctl")};
            for (const std::string &word : words)
                arguments.push_back(const_cast<char *>(word.c_str()));
            arguments.push_back(nullptr);
            ::execv(BIOSCTL_PROGRAM, arguments.data());
            ::_exit(127);
        }
        terminal_.reset(terminal);
    }
    ~terminal_run()
    {
        (void)::kill(pid_, SIGKILL);
        (void)::waitpid(pid_, nullptr, 0);
    }
    terminal_run(const terminal_run &) = delete;
    terminal_run &operator=(const terminal_run &) = delete;

    // All that it shows until its end, without the terminal's carriage returns at the ends of lines.
    std::string shown()
    {
        std::string text;
        const auto deadline = std::chrono::steady_clock::now() + TEST_DEADLINE;
        pollfd readable{terminal_.get(), POLLIN, 0};
        while (std::chrono::steady_clock::now() < deadline && ::poll(&readable, 1, 1000) >= 0) {
            char piece[4096];
            const ssize_t got = readable.revents != 0 ? ::read(terminal_.get(), piece, sizeof piece) : 0;
            if (got < 0 || (readable.revents != 0 && got == 0))
                break;
            text.append(piece, static_cast<std::size_t>(got));
        }
        for (std::size_t end = text.find("\r\n"); end != std::string::npos; end = text.find("\r\n", end))
            text.erase(end, 1);
        return text;
    }

private:
    pid_t pid_ = -1;
    unique_fd terminal_;
};

std::vector<std::string> lines_of(const std::string &text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::string without_blanks(std::string text)
{
    std::erase_if(text, [](char character) { return character == ' ' || character == '\n'; });
    return text;
}

// What two blanks or more keep apart.
std::vector<std::string> cells_of(const std::string &line)
{
    std::vector<std::string> cells;
    for (std::size_t begin = line.find_first_not_of(' '); begin != std::string::npos;) {
        const std::size_t end = std::min(line.find("  ", begin), line.size());
        cells.push_back(line.substr(begin, end - begin));
        begin = line.find_first_not_of(' ', end);
    }
    return cells;
}

std::size_t longest_line(const std::string &text)
{
    std::size_t longest = 0;
    for (const std::string &line : lines_of(text))
        longest = std::max(longest, line.size());
    return longest;
}

bool has_escapes(const std::string &text)
{
    return text.find('\033') != std::string::npos;
}

bool has_colours(const std::string &text)
{
    for (std::size_t begin = text.find("\033["); begin != std::string::npos;
         begin = text.find("\033[", begin + 1)) {
        const std::size_t end = text.find_first_not_of("0123456789;?", begin + 2);
        if (end != std::string::npos && text[end] == 'm')
            return true;
    }
    return false;
}

// A daemon that refuses: what is told is long.
void refuse(daemon_side &side)
{
    std::vector<std::uint8_t> body;
    for (;;) {
        (void)side.receive_any(body);
        side.answer(0x4071000a);
    }
}

void program_slowly(daemon_side &side)
{
    (void)side.receive(MTS_OPC_BIOS_PROGRAMMING_START);
    side.answer(0);
    for (unsigned percent = 0; percent <= 100; percent += 10)
        side.progress(1, percent);
    side.notify(0, 27);
}

std::vector<std::string> in_chassis(const test_chassis &chassis, std::vector<std::string> words)
{
    words.insert(words.begin(), {"--dir", chassis.path()});
    return words;
}

} // namespace

TEST(Terminal, ColoursOnlyWhereTheyAreUnderstoodAndWanted)
{
    const std::vector<std::string> words{"explain", "0x4071000c"}; // tells not to reboot
    ::unsetenv("NO_COLOR");
    const std::string coloured_text = terminal_run("xterm", 120, words).shown();
    EXPECT_NE(coloured_text.find("\033[31mmay be corrupted: do not reboot the card\033[0m"), std::string::npos)
        << coloured_text;
    (void)::setenv("NO_COLOR", "", 1); // as if it were not set
    EXPECT_EQ(terminal_run("xterm", 120, words).shown(), coloured_text);
    EXPECT_FALSE(has_escapes(terminal_run("dumb", 120, words).shown()));
    (void)::setenv("NO_COLOR", "1", 1);
    EXPECT_FALSE(has_escapes(terminal_run("xterm", 120, words).shown()));
    ::unsetenv("NO_COLOR");
    EXPECT_FALSE(has_escapes(biosctl_run(words).out()));
}

TEST(Terminal, HelpFitsIntoItsWidth)
{
    for (const std::uint16_t columns : {std::uint16_t{80}, std::uint16_t{120}}) {
        for (const char *verb : {"show", "audit", "source", "program", "sync", "watch", "events", "metrics",
                                 "loader", "lock", "unlock", "explain"}) {
            const std::string help = terminal_run("xterm", columns, {verb, "--help"}).shown();
            EXPECT_NE(help.find("Usage: biosctl"), std::string::npos) << verb;
            EXPECT_LE(longest_line(help), columns) << help;
        }
        EXPECT_LE(longest_line(terminal_run("xterm", columns, {"--help"}).shown()), columns);
    }
}

TEST(Terminal, MessagesFitIntoItsWidthAndStayWholeElsewhere)
{
    const test_chassis chassis;
    scripted_daemon daemon(chassis, 27, refuse);
    const std::string shown = terminal_run("xterm", 80, in_chassis(chassis, {"program", "27"})).shown();
    EXPECT_NE(shown.find("0x4071000a (busy)"), std::string::npos) << shown;
    EXPECT_LE(longest_line(shown), 80U) << shown;
    biosctl_run run(in_chassis(chassis, {"program", "27"}));
    EXPECT_EQ(run.exit_code(), 4);
    EXPECT_GT(longest_line(run.err()), 80U) << run.err();
}

TEST(Terminal, ABarIsDrawnOnlyWhereItCanBe)
{
    for (const std::string kind : {"xterm", "dumb", ""}) {
        const test_chassis chassis;
        scripted_daemon daemon(chassis, 27, program_slowly);
        const std::string shown = terminal_run(kind, 80, in_chassis(chassis, {"program", "27"})).shown();
        EXPECT_NE(shown.find("programmed and verified"), std::string::npos) << shown;
        EXPECT_EQ(has_escapes(shown), kind == "xterm") << kind << ": " << shown;
        EXPECT_EQ(shown.find('\r') != std::string::npos, kind == "xterm") << kind << ": " << shown;
        EXPECT_EQ(shown.find("module 27: 50% ") != std::string::npos, kind != "xterm") << kind << ": " << shown;
    }
}

TEST(Terminal, AWatchIsDrawnOverItselfOnlyWhereItCanBe)
{
    const test_chassis chassis;
    for (const char *kind : {"xterm", "dumb"}) {
        const std::string shown = terminal_run(kind, 60, in_chassis(chassis, {"watch", "--for", "1"})).shown();
        EXPECT_NE(shown.find("no daemon"), std::string::npos) << shown;
        EXPECT_EQ(has_escapes(shown), kind == std::string("xterm")) << kind << ": " << shown;
        EXPECT_TRUE(has_escapes(shown) || longest_line(shown) < 60) << shown;
    }
}

// Each cell of a table and each line of a message is somewhere, wherever it was wrapped.
TEST(Terminal, NothingIsLostInFortyColumns)
{
    const test_chassis chassis;
    const scripted_daemon daemon(chassis, 27, refuse);
    const std::string flash = chassis.flash_folder(5, "primary");
    std::ofstream(flash + "/events")
        << R"-({"time":"2026-01-31T12:00:00.250Z","slot":5,"flash":"primary","sequence":1,"pid":9,"event":"begun",)-"
        << R"-("image_bytes":8388608,"version":"v3.5.0(09/17/12)"})-"
        << "\n"
        << R"-({"time":"2026-01-31T12:00:02.000Z","slot":5,"flash":"primary","sequence":2,"pid":9,"event":"failed",)-"
        << R"-("attempt":1,"sectors_erased":2,"bytes_written":0,"result":"0x40710009","duration_ms":1750})-"
        << "\n";
    for (const unsigned slot : {5U, 27U, 28U}) {
        chassis.card_holds(slot, "v3.5.0(09/17/12)", "v3.1.0(02/11/11)");
        chassis.agent_says(slot, "ships", "v12.34.567(09/17/12)");
    }
    biosctl_run lock(in_chassis(chassis, {"lock", "5"}));
    ASSERT_EQ(lock.exit_code(), 0) << lock.err();
    for (const std::vector<std::string> &words : {std::vector<std::string>{"show"},
                                                  {"audit"},
                                                  {"source"},
                                                  {"sync", "--dry-run"},
                                                  {"events"},
                                                  {"program", "27"},
                                                  {"program", "5"},
                                                  {"unlock", "28"},
                                                  {"cancel", "5"},
                                                  {"explain", "0x4071000c"},
                                                  {"--help"},
                                                  {"x"}}) {
        biosctl_run whole(in_chassis(chassis, words));
        (void)whole.exit_code();
        const std::string shown = without_blanks(terminal_run("dumb", 40, in_chassis(chassis, words)).shown());
        EXPECT_FALSE((whole.out() + whole.err()).empty()) << words[0];
        for (const std::string &line : lines_of(whole.out() + whole.err())) {
            for (const std::string &cell : cells_of(line))
                EXPECT_NE(shown.find(without_blanks(cell)), std::string::npos) << words[0] << ": " << cell;
        }
    }
}

TEST(Terminal, NothingIsColouredWithNoColorNorHasEscapesElsewhere)
{
    (void)::setenv("NO_COLOR", "1", 1);
    const test_chassis chassis;
    scripted_daemon daemon(chassis, 27, refuse);
    for (const std::vector<std::string> &words : {std::vector<std::string>{"show"},
                                                  {"audit"},
                                                  {"source"},
                                                  {"watch", "--once"},
                                                  {"watch", "--for", "1"},
                                                  {"events"},
                                                  {"metrics"},
                                                  {"sync"},
                                                  {"program", "27"},
                                                  {"lock", "5"},
                                                  {"explain", "0"},
                                                  {"--help"},
                                                  {"x"}}) {
        EXPECT_FALSE(has_colours(terminal_run("xterm-256color", 80, in_chassis(chassis, words)).shown()))
            << words[0];
        biosctl_run run(in_chassis(chassis, words));
        (void)run.exit_code();
        EXPECT_FALSE(has_escapes(run.out() + run.err())) << words[0] << ": " << run.out() << run.err();
    }
    ::unsetenv("NO_COLOR");
}
