// chassis: makes, starts, shows and stops a chassis on this machine.
//
//   chassis [--dir DIR] init DESCRIPTION.toml
//   chassis families [--json]
//   chassis [--dir DIR] up | down | status [--json] | restart SLOT [--upgrade] | log SLOT [--follow]
//   chassis [--dir DIR] debug SLOT [+CATEGORY | -CATEGORY ...] [--follow] | history SLOT [--json] [--last N]
//
// DIR is CHASSIS_DIR of the environment or ./chassis.d when it is not given.
// Exit status: 0 done, 1 failed, 64 wrong usage.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <string>
#include <unistd.h>

#include "card_files.h"
#include "card_keeper.h"
#include "card_view.h"
#include "chassis_commands.h"
#include "chassis_dir.h"
#include "command_line_run.h"
#include "debug_view.h"
#include "history_view.h"
#include "launcher_error.h"
#include "pfm.h"
#include "standard_output.h"

namespace
{

constexpr unsigned DEFAULT_PATIENCE_S = 30;

struct command_line {
    std::string directory;
    std::string description;
    std::string daemon;
    std::string way;
    unsigned slot = 0;
    unsigned patience_s = DEFAULT_PATIENCE_S;
    bool json = false;
    bool upgrade = false;
    bool follow = false;
    std::optional<unsigned> last;
    int exit_status = EXIT_SUCCESS;
};

// A descriptor that this program opens must not take the place of a closed standard stream.
void fill_standard_streams()
{
    int fd = 0;
    do {
        fd = ::open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd > STDERR_FILENO)
        (void)::close(fd);
}

std::string default_directory()
{
    const char *named = std::getenv(CHASSIS_ENV_DIR);
    return named != nullptr && *named != '\0' ? named : "chassis.d";
}

// Name of the directory that goes on being right when the working directory changes.
std::string absolute_directory(const command_line &line)
{
    std::filesystem::path path = std::filesystem::absolute(line.directory).lexically_normal();
    return path.has_filename() ? path.string() : path.parent_path().string();
}

void keep(command_line &line)
{
    open_chassis(line.directory);
    const std::optional<isolation> way = parse_isolation(line.way);
    if (!way || *way == isolation::automatic)
        throw launcher_error("isolation " + line.way + ": is not mount, user or plain");
    const std::string tools = std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
    line.exit_status = keep_card({absolute_directory(line), line.slot, *way, line.daemon, tools});
}

CLI::Option *add_slot(CLI::App *command, command_line &line)
{
    return command->add_option("SLOT", line.slot, "Slot of the card")
        ->required()
        ->check(CLI::Range(1, int{PFM_MODULE_COUNT}));
}

void add_patience(CLI::App *command, command_line &line)
{
    command->add_option("--timeout", line.patience_s, "Seconds to wait until the daemon serves")
        ->capture_default_str()
        ->check(CLI::Range(1, 3600));
}

void add_starting_commands(CLI::App &app, command_line &line)
{
    CLI::App *command = app.add_subcommand("init", "Make the chassis directory from a description");
    command->add_option("DESCRIPTION", line.description, "Description of the chassis, TOML")->required();
    command->callback([&line] { init_chassis(absolute_directory(line), line.description); });

    command = app.add_subcommand("up", "Start every card; returns when all of them serve");
    command->add_option("--daemon", line.daemon,
                        "The daemon's executable; else BIOS_DAEMON, or the one beside chassis");
    add_patience(command, line);
    command->callback([&line] {
        open_chassis(line.directory);
        bring_up({absolute_directory(line), line.daemon, std::chrono::seconds(line.patience_s)});
    });

    command = app.add_subcommand("down", "Stop every card; returns when no process of them is left");
    command->callback([&line] {
        open_chassis(line.directory);
        bring_down();
    });

    command = app.add_subcommand("restart", "Reboot a card; returns when it serves");
    add_slot(command, line);
    command->add_flag("--upgrade", line.upgrade, "Only the software is restarted, as in an in-service upgrade");
    add_patience(command, line);
    command->callback([&line] {
        open_chassis(line.directory);
        restart_card(line.slot, line.upgrade, std::chrono::seconds(line.patience_s));
    });

    command = app.add_subcommand("card", "The process behind a card; started by up")->group("");
    add_slot(command, line);
    command->add_option("--daemon", line.daemon)->required();
    command->add_option("--isolation", line.way)->required();
    command->callback([&line] { keep(line); });
}

void add_looking_commands(CLI::App &app, command_line &line)
{
    CLI::App *command = app.add_subcommand("status", "Show the cards");
    command->add_flag("--json", line.json, "For programs");
    command->callback([&line] {
        open_chassis(line.directory);
        print_output(show_status(line.json));
    });

    command = app.add_subcommand("families", "Show the card families that a description can name");
    command->add_flag("--json", line.json, "For programs");
    command->callback([&line] { print_output(show_families(line.json)); });

    command = app.add_subcommand("log", "Print what a card's daemon printed");
    add_slot(command, line);
    command->add_flag("--follow", line.follow, "Go on with what is added");
    command->callback([&line] {
        open_chassis(line.directory);
        print_log(line.slot, line.follow);
    });
}

// The words are taken from what the parser has left over: as an argument of the command "-info" would be an option.
void switch_debug(const CLI::App &command, const command_line &line)
{
    const std::vector<std::string> words = command.remaining();
    for (const std::string &word : words) {
        if (const std::string problem = debug_word_problem(word); !problem.empty())
            throw CLI::ValidationError(problem);
    }
    open_chassis(line.directory);
    debug_card(line.slot, words, line.follow);
}

void add_diagnostic_commands(CLI::App &app, command_line &line)
{
    CLI::App *command = app.add_subcommand("debug", "Switch a card's debug categories and show which are on");
    add_slot(command, line);
    command->add_flag("--follow", line.follow, "Go on with the debug lines that come from now on");
    command->allow_extras()->footer("Behind SLOT, obeyed in their order: +errors, -errors, +warnings, -warnings, "
                                    "+info, -info, +all, -all.");
    command->callback([&line, command] { switch_debug(*command, line); });

    command = app.add_subcommand("history", "Show a card's last events, oldest first");
    add_slot(command, line);
    command->add_flag("--json", line.json, "For programs");
    command->add_option("--last", line.last, "Show so many events at most")->check(CLI::Range(1, 1'000'000));
    command->callback([&line] {
        open_chassis(line.directory);
        print_output(show_history(line.slot, line.last, line.json));
    });
}

} // namespace

int main(int argc, char **argv)
{
    fill_standard_streams();
    CLI::App app("Makes, starts, shows and stops a chassis on this machine.", "chassis");
    app.require_subcommand(1);
    command_line line;
    line.directory = default_directory();
    app.add_option("--dir", line.directory, "Directory of the chassis; else CHASSIS_DIR")->capture_default_str();
    add_starting_commands(app, line);
    add_looking_commands(app, line);
    add_diagnostic_commands(app, line);
    const int status = run_command_line(app, argc, argv);
    return status == EXIT_SUCCESS ? line.exit_status : status;
}
