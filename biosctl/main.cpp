// biosctl: the operator's command line. The commands and their arguments are in verbs.cpp; what a command does is
// in the file of its name.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <map>
#include <optional>
#include <span>
#include <sstream>
#include <string>

#include <CLI/CLI.hpp>

#include "client.h"
#include "inventory.h"
#include "outcome.h"
#include "place_hints.h"
#include "serving_slot.h"
#include "verbs.h"

namespace
{

constexpr const char *PROGRAM_VERSION = "biosctl " BIOS_DAEMON_VERSION;

// The parser may have stopped before it saw the flag.
bool wants_json(int argc, char **argv)
{
    return std::any_of(argv, argv + argc, [](const char *word) { return std::string(word) == "--json"; });
}

// What all commands have in common.
struct arguments {
    std::string dir;
    bool json = false;
};

// Each verb with what runs it once the command line was read.
using runnable_verbs = std::map<const verb *, verb_run>;

runnable_verbs add_commands(CLI::App &app, arguments &given)
{
    app.add_option("--dir", given.dir, "Chassis directory; without: $CHASSIS_DIR, else ./chassis.d")
        ->type_name("CHASSIS_DIR");
    app.add_flag("--json", given.json, "Answer with one JSON object on standard output, errors too");
    app.set_version_flag("--version", PROGRAM_VERSION, "Print the version and exit");
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(EXIT_CODES_HELP);
    runnable_verbs runs;
    for (const verb &row : verbs())
        runs[&row] = row.add(*app.add_subcommand(row.name, row.help));
    return runs;
}

outcome run(const CLI::App &command, const arguments &given, const runnable_verbs &runs)
{
    const std::span<const verb> rows = verbs();
    const auto row =
        std::find_if(rows.begin(), rows.end(), [&](const verb &one) { return one.name == command.get_name(); });
    const verb_run &run_verb = runs.at(&*row);
    if (!row->in_chassis)
        return run_verb(given.json);
    std::string where, problem;
    if (open_chassis(given.dir, where, problem)) {
        if (any_card_answers())
            return run_verb(given.json);
        if (const client_endpoint endpoint; !endpoint.bound())
            return no_endpoint_failure();
        return failure(EXIT_FAILED, "no agent of a card of the chassis in '" + where + "' answers",
                       no_agent_hint());
    }
    if (problem.empty())
        return failure(EXIT_NOT_FOUND, "there is no chassis in '" + where + "'",
                       "name its directory with --dir or in the environment as CHASSIS_DIR");
    return failure(EXIT_FAILED, "the chassis in '" + where + "' is not used: " + problem,
                   "run biosctl as the user that the chassis belongs to");
}

// Where the last column of a line of the parser's help begins; none when the line has but one.
std::optional<std::size_t> last_column_of(const std::string &line)
{
    const std::size_t begin = std::min(line.find_first_not_of(' '), line.size());
    const std::size_t gap = line.rfind("  ");
    return gap != std::string::npos && gap > begin ? std::optional(gap + 2) : std::nullopt;
}

outcome help_text(const CLI::App &app, const CLI::Success &request)
{
    std::ostringstream printed;
    (void)app.exit(request, printed, printed);
    std::string text = printed.str();
    while (text.ends_with('\n'))
        text.pop_back();
    const bool version = dynamic_cast<const CLI::CallForVersion *>(&request) != nullptr;
    outcome help{.json = {{version ? "version" : "help", version ? BIOS_DAEMON_VERSION : text}}};
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        help.report.push_back(text_line{line, last_column_of(line)});
    return help;
}

// The first word where a command should stand; the parser only tells that there is none.
std::string word_for_command(int argc, char **argv)
{
    for (int place = 1; place < argc; ++place) {
        const std::string word = argv[place];
        if (word == "--dir")
            ++place;
        else if (!word.starts_with('-'))
            return word;
    }
    return {};
}

outcome usage_error(const CLI::App &app, const CLI::ParseError &error, const std::string &word)
{
    const bool is_unknown = app.get_subcommands().empty() && !word.empty() &&
                            error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError);
    return failure(EXIT_USAGE_ERROR, is_unknown ? "'" + word + "' is no command" : error.what(),
                   "biosctl --help, or biosctl COMMAND --help");
}

int parse_and_run(int argc, char **argv)
{
    arguments given;
    CLI::App app{"Shows and programs the BIOS of the cards of a chassis.", "biosctl"};
    const runnable_verbs runs = add_commands(app, given);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &request) {
        return print_outcome(help_text(app, request), wants_json(argc, argv));
    } catch (const CLI::ParseError &error) {
        return print_outcome(usage_error(app, error, word_for_command(argc, argv)), wants_json(argc, argv));
    }
    return print_outcome(run(*app.get_subcommands().front(), given, runs), given.json);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return parse_and_run(argc, argv);
    } catch (const std::exception &error) {
        const outcome end =
            failure(EXIT_FAILED, error.what(), "look at the machine's memory and the chassis directory");
        return print_outcome(end, wants_json(argc, argv));
    }
}
