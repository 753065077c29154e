// biosctl: the operator's command line. This file knows the arguments; what a command does is in the file of its
// name.
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "explain.h"
#include "inventory.h"
#include "lock.h"
#include "outcome.h"
#include "pfm.h"
#include "program.h"
#include "show.h"
#include "source.h"

namespace
{

struct arguments {
    std::string dir;
    bool json = false;
    program_options program;
    std::string image;
    unsigned type = 0;
    unsigned module = 0;
    std::vector<unsigned> modules;
    unsigned via = 0;
    unsigned timeout_s = 0;
    std::string code;
};

// Accepts a plain decimal number of a range. Rewrites it without leading zeros: what follows would take them for
// an octal number.
CLI::Validator decimal(unsigned low, unsigned high)
{
    const std::string range = std::to_string(low) + ".." + std::to_string(high);
    return {[low, high, range](std::string &text) {
                unsigned number = 0;
                const char *end = text.data() + text.size();
                const auto [rest, failure] = std::from_chars(text.data(), end, number);
                if (failure != std::errc{} || rest != end || number < low || number > high)
                    return "'" + text + "' is no number " + range;
                text = std::to_string(number);
                return std::string{};
            },
            range};
}

CLI::Validator image_uri()
{
    return {[](std::string &text) {
                if (text.empty())
                    return std::string("the image URI is empty");
                if (text.size() > IMAGE_URI_BYTES_MAX)
                    return "the image URI has " + std::to_string(text.size()) + " bytes; at most " +
                           std::to_string(IMAGE_URI_BYTES_MAX) + " fit into a request";
                return std::string{};
            },
            "URI"};
}

// Rewrites an image to its path on the card.
CLI::Validator image_on_card()
{
    return {[](std::string &text) {
                std::string problem;
                if (const auto path = image_path_of(text, problem); path)
                    text = *path;
                return problem;
            },
            "IMAGE"};
}

CLI::Validator result_code()
{
    return {[](std::string &text) {
                std::uint32_t code = 0;
                const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
                const char *begin = text.data() + (hexadecimal ? 2 : 0);
                const char *end = text.data() + text.size();
                const auto [rest, failure] = std::from_chars(begin, end, code, hexadecimal ? 16 : 10);
                if (failure != std::errc{} || rest != end)
                    return "'" + text + "' is no result code, such as 0x40710009";
                text = std::to_string(code);
                return std::string{};
            },
            "CODE"};
}

void add_via(CLI::App *command, arguments &given)
{
    command->add_option("--via", given.via, "Ask the daemon of this slot, not the active supervisor's")
        ->transform(decimal(1, PFM_MODULE_COUNT))
        ->type_name("SLOT");
}

void add_timeout(CLI::App *command, arguments &given, const std::string &meaning)
{
    command->add_option("--timeout", given.timeout_s, meaning)
        ->transform(decimal(1, 1'000'000))
        ->type_name("SECONDS");
}

void add_module(CLI::App *command, arguments &given)
{
    command->add_option("MODULE", given.module, "Module (slot) number")
        ->required()
        ->transform(decimal(1, PFM_MODULE_COUNT));
    add_via(command, given);
}

void add_show(CLI::App *command, arguments &given)
{
    command->add_option("MODULE", given.modules, "Module (slot) numbers; without: all")
        ->transform(decimal(1, PFM_MODULE_COUNT));
    add_via(command, given);
    add_timeout(command, given, "Wait no longer for one answer (30)");
}

void add_commands(CLI::App &app, arguments &given)
{
    add_show(app.add_subcommand("show", "Show the versions in the image, in the flash and running of every card"),
             given);
    add_show(app.add_subcommand("audit", "The same, and fail when any card is not in step"), given);

    CLI::App *source =
        app.add_subcommand("source", "Show the BIOS versions in a card's image tree or system image");
    add_via(source, given);
    source
        ->add_option("--image", given.image,
                     "System image on the card, bootflash:NAME or a path; without: the image tree")
        ->transform(image_on_card());
    add_timeout(source, given, "Wait no longer for the answer (300)");

    CLI::App *program = app.add_subcommand("program", "Program a module's BIOS flash and follow it to its end");
    add_module(program, given);
    program
        ->add_option("--image", given.image,
                     "System image that holds the BIOS, such as bootflash:NAME; without: the image tree")
        ->transform(image_uri());
    program->add_option("--type", given.type, "Flash instance, 0 is the primary one")->transform(decimal(0, 255));
    add_timeout(program, given, "Stop watching after so long; the programming goes on");

    add_module(app.add_subcommand("lock", "Have the daemon take a module's lock"), given);
    add_module(app.add_subcommand("unlock", "Have the daemon free a module's lock"), given);

    CLI::App *explain = app.add_subcommand("explain", "Tell what a result code means and what to do");
    explain->add_option("CODE", given.code, "Result code")->required()->transform(result_code());
}

std::optional<unsigned> if_given(const CLI::App *command, const std::string &option, unsigned value)
{
    return command->count(option) > 0 ? std::optional(value) : std::nullopt;
}

outcome run_show_command(const CLI::App *command, const arguments &given)
{
    return run_show({command->get_name() == "audit" ? show_kind::audit : show_kind::show, given.modules,
                     if_given(command, "--via", given.via), if_given(command, "--timeout", given.timeout_s)},
                    given.json);
}

outcome run_source_command(const CLI::App *command, const arguments &given)
{
    source_options options{.via = if_given(command, "--via", given.via),
                           .timeout_s = if_given(command, "--timeout", given.timeout_s)};
    if (command->count("--image") > 0)
        options.image_path = given.image;
    return run_source(options, given.json);
}

outcome run_program_command(const CLI::App *command, const arguments &given)
{
    program_options options{.module = given.module,
                            .type = static_cast<std::uint8_t>(given.type),
                            .via = if_given(command, "--via", given.via),
                            .timeout_s = if_given(command, "--timeout", given.timeout_s)};
    if (command->count("--image") > 0)
        options.image = given.image;
    return run_program(options, given.json);
}

outcome run_in_chassis(const CLI::App *command, const arguments &given)
{
    std::string where;
    if (!open_chassis(given.dir, where))
        return failure(EXIT_NOT_FOUND, "there is no chassis in '" + where + "'",
                       "name its directory with --dir or in the environment as CHASSIS_DIR");
    const std::string &name = command->get_name();
    if (name == "show" || name == "audit")
        return run_show_command(command, given);
    if (name == "source")
        return run_source_command(command, given);
    if (name == "program")
        return run_program_command(command, given);
    return run_lock({name == "lock" ? BIOS_MODULE_LOCK_TAKE : BIOS_MODULE_LOCK_RELEASE, given.module,
                     if_given(command, "--via", given.via)});
}

outcome run(const CLI::App *command, const arguments &given)
{
    if (command->get_name() == "explain")
        return run_explain(static_cast<std::uint32_t>(std::stoul(given.code)));
    return run_in_chassis(command, given);
}

outcome usage_error(const CLI::ParseError &error)
{
    return failure(EXIT_USAGE_ERROR, error.what(), "biosctl --help, or biosctl COMMAND --help");
}

int parse_and_run(int argc, char **argv)
{
    arguments given;
    CLI::App app{"Shows and programs the BIOS of the cards of a chassis.", "biosctl"};
    app.add_option("--dir", given.dir, "Chassis directory; without: $CHASSIS_DIR, else ./chassis.d")
        ->type_name("CHASSIS_DIR");
    app.add_flag("--json", given.json, "Answer with one JSON object on standard output, errors too");
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(EXIT_CODES_HELP);
    add_commands(app, given);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &request_for_help) {
        return app.exit(request_for_help);
    } catch (const CLI::ParseError &error) {
        // The parser may have stopped before it saw the flag.
        const bool json =
            std::any_of(argv, argv + argc, [](const char *word) { return std::string(word) == "--json"; });
        return print_outcome(usage_error(error), json);
    }
    return print_outcome(run(app.get_subcommands().front(), given), given.json);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return parse_and_run(argc, argv);
    } catch (const std::exception &error) {
        (void)std::fprintf(stderr, "biosctl: %s\n", error.what());
        return EXIT_FAILED;
    }
}
