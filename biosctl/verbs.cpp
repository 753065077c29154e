#include "verbs.h"

#include "argument_kinds.h"
#include "events.h"
#include "explain.h"
#include "file_search.h"
#include "loader.h"
#include "lock.h"
#include "metrics.h"
#include "pfm.h"
#include "program.h"
#include "program_all.h"
#include "show.h"
#include "source.h"
#include "sync.h"
#include "watch.h"

namespace
{

void add_via(CLI::App &command, arguments &given)
{
    command.add_option("--via", given.via, "Ask the daemon of this slot, not the active supervisor's")
        ->transform(decimal(1, PFM_MODULE_COUNT))
        ->type_name("SLOT");
}

void add_timeout(CLI::App &command, arguments &given, const std::string &meaning)
{
    command.add_option("--timeout", given.timeout_s, meaning)
        ->transform(decimal(1, 1'000'000))
        ->type_name("SECONDS");
}

void add_keep_going(CLI::App &command, arguments &given)
{
    command.add_flag("--keep-going", given.keep_going, "Go on with the other modules after a failure");
}

void add_modules(CLI::App &command, arguments &given)
{
    command.add_option("MODULE", given.modules, "Module (slot) numbers; without: all")
        ->transform(decimal(1, PFM_MODULE_COUNT));
}

std::optional<unsigned> if_given(const CLI::App &command, const std::string &option, unsigned value)
{
    return command.count(option) > 0 ? std::optional(value) : std::nullopt;
}

void add_show(CLI::App &command, arguments &given)
{
    add_modules(command, given);
    add_via(command, given);
    add_timeout(command, given, "Wait no longer for one answer (30)");
}

outcome run_show_verb(const CLI::App &command, const arguments &given)
{
    return run_show({command.get_name() == "audit" ? show_kind::audit : show_kind::show, given.modules,
                     if_given(command, "--via", given.via), if_given(command, "--timeout", given.timeout_s)},
                    given.json);
}

void add_source(CLI::App &command, arguments &given)
{
    add_via(command, given);
    command
        .add_option("--image", given.image,
                    "System image on the card, bootflash:NAME or a path; without: the image tree")
        ->transform(image_on_card(IMAGE_PATH_BYTES_MAX));
    add_timeout(command, given, "Wait no longer for the answer (300)");
}

outcome run_source_verb(const CLI::App &command, const arguments &given)
{
    source_options options{.via = if_given(command, "--via", given.via),
                           .timeout_s = if_given(command, "--timeout", given.timeout_s)};
    if (command.count("--image") > 0)
        options.image_path = given.image;
    return run_source(options, given.json);
}

void add_program(CLI::App &command, arguments &given)
{
    command
        .add_option("MODULE", given.module,
                    "Module (slot) number; all: the standby supervisor, then the active one's own card")
        ->required()
        ->transform(decimal_or_all(1, PFM_MODULE_COUNT));
    add_via(command, given);
    command
        .add_option("--image", given.image,
                    "System image that holds the BIOS, such as bootflash:NAME; without: the image tree")
        ->transform(image_uri());
    command.add_option("--type", given.type, "Flash instance, 0 is the primary one")->transform(decimal(0, 255));
    add_timeout(command, given, "Stop watching after so long; the programming goes on");
    add_keep_going(command, given);
}

outcome run_program_verb(const CLI::App &command, const arguments &given)
{
    const bool all = given.module == ALL_MODULES;
    if (all && command.count("--via") > 0)
        return failure(EXIT_USAGE_ERROR, "--via does not go with all: the active supervisor programs all",
                       "biosctl program --help");
    if (!all && given.keep_going)
        return failure(EXIT_USAGE_ERROR, "--keep-going goes with all only", "biosctl program --help");
    program_options options{.type = static_cast<std::uint8_t>(given.type),
                            .via = if_given(command, "--via", given.via),
                            .timeout_s = if_given(command, "--timeout", given.timeout_s)};
    if (command.count("--image") > 0)
        options.image = given.image;
    if (all)
        return run_program_all({.each = options, .keep_going = given.keep_going}, given.json);
    options.module = static_cast<unsigned>(std::stoul(given.module));
    return run_program(options, given.json);
}

void add_sync(CLI::App &command, arguments &given)
{
    add_modules(command, given);
    command.add_flag("--allow-older", given.allow_older, "Program an image that is older than the flash, too");
    command.add_flag("--dry-run", given.dry_run, "Tell what would be programmed, and program nothing");
    add_keep_going(command, given);
    add_timeout(command, given, "Wait no longer for one version (30)");
}

outcome run_sync_verb(const CLI::App &command, const arguments &given)
{
    return run_sync({.modules = given.modules,
                     .allow_older = given.allow_older,
                     .dry_run = given.dry_run,
                     .keep_going = given.keep_going,
                     .timeout_s = if_given(command, "--timeout", given.timeout_s)},
                    given.json);
}

void add_watch(CLI::App &command, arguments &given)
{
    add_modules(command, given);
    command.add_option("--interval", given.interval_ms, "Look so often (0.5)")
        ->transform(seconds_in_ms(100, 3'600'000))
        ->type_name("SECONDS");
    command.add_option("--for", given.duration_s, "Leave after so long; without: with Ctrl-C")
        ->transform(decimal(1, 1'000'000))
        ->type_name("SECONDS");
    command.add_flag("--once", given.once, "Look once");
}

outcome run_watch_verb(const CLI::App &command, const arguments &given)
{
    watch_options options{.modules = given.modules, .once = given.once};
    if (command.count("--interval") > 0)
        options.interval = std::chrono::milliseconds(given.interval_ms);
    if (command.count("--for") > 0)
        options.duration = std::chrono::seconds(given.duration_s);
    return run_watch(options, given.json);
}

void add_events(CLI::App &command, arguments &given)
{
    add_modules(command, given);
    command.add_option("--last", given.last, "Only so many of what has happened")
        ->transform(decimal(0, 1'000'000))
        ->type_name("COUNT");
    command.add_flag("--follow", given.follow, "Go on with what happens, until Ctrl-C");
}

outcome run_events_verb(const CLI::App &command, const arguments &given)
{
    return run_events(
        {.modules = given.modules, .last = if_given(command, "--last", given.last), .follow = given.follow},
        given.json);
}

outcome run_metrics_verb(const CLI::App &, const arguments &given)
{
    return run_metrics(given.modules);
}

void add_loader_file(CLI::App &command, arguments &given)
{
    command.add_option("--output", given.output, "File to write")->required()->type_name("FILE");
    command.add_option("--size", given.size_bytes, "How much of it; without: all")
        ->transform(decimal(0, LOADER_FILE_BYTES_MAX))
        ->type_name("BYTES");
    command.add_flag("--force", given.overwrite, "Replace the file when it is there");
    add_via(command, given);
    add_timeout(command, given, "Wait no longer for one answer (300)");
}

void add_loader(CLI::App &command, arguments &given)
{
    command.require_subcommand(1);
    CLI::App &install = *command.add_subcommand("install", "Install the boot loader of a system image");
    install.add_option("IMAGE", given.image, "System image on the card, bootflash:NAME or a path")
        ->required()
        ->transform(image_on_card(LOADER_IMAGE_PATH_BYTES_MAX));
    install.add_flag("--remove", given.remove_image, "Remove the system image afterwards, whatever came of it");
    add_via(install, given);
    add_timeout(install, given, "Wait no longer for the end; the installation goes on");
    add_loader_file(*command.add_subcommand("get", "Fetch the installed boot loader"), given);
    add_loader_file(*command.add_subcommand("ks", "Fetch the file /etc/srg-ks.sro"), given);
}

outcome run_loader_verb(const CLI::App &command, const arguments &given)
{
    const CLI::App &part = *command.get_subcommands().front();
    const auto via = if_given(part, "--via", given.via);
    const auto timeout_s = if_given(part, "--timeout", given.timeout_s);
    if (part.get_name() == "install")
        return run_loader_install({given.image, given.remove_image, via, timeout_s}, given.json);
    return run_loader_file({.file = part.get_name() == "ks" ? loader_file::ks : loader_file::loader,
                            .output = given.output,
                            .overwrite = given.overwrite,
                            .size_bytes = if_given(part, "--size", given.size_bytes),
                            .via = via,
                            .timeout_s = timeout_s},
                           given.json);
}

void add_lock(CLI::App &command, arguments &given)
{
    command.add_option("MODULE", given.module, "Module (slot) number")
        ->required()
        ->transform(decimal(1, PFM_MODULE_COUNT));
    add_via(command, given);
}

outcome run_lock_verb(const CLI::App &command, const arguments &given)
{
    return run_lock({command.get_name() == "lock" ? BIOS_MODULE_LOCK_TAKE : BIOS_MODULE_LOCK_RELEASE,
                     static_cast<unsigned>(std::stoul(given.module)), if_given(command, "--via", given.via)});
}

void add_explain(CLI::App &command, arguments &given)
{
    command.add_option("CODE", given.code, "Result code")->required()->transform(result_code());
}

outcome run_explain_verb(const CLI::App &, const arguments &given)
{
    return run_explain(static_cast<std::uint32_t>(std::stoul(given.code)));
}

constexpr verb VERBS[] = {
    {.name = "show",
     .help = "Show the versions in the image, in the flash and running of every card",
     .in_chassis = true,
     .add = add_show,
     .run = run_show_verb},
    {.name = "audit",
     .help = "The same, and fail when any card is not in step",
     .in_chassis = true,
     .add = add_show,
     .run = run_show_verb},
    {.name = "source",
     .help = "Show the BIOS versions in a card's image tree or system image",
     .in_chassis = true,
     .add = add_source,
     .run = run_source_verb},
    {.name = "program",
     .help = "Program a module's BIOS flash and follow it to its end",
     .in_chassis = true,
     .add = add_program,
     .run = run_program_verb},
    {.name = "sync",
     .help = "Program the cards whose flash is out of step with the image that ships for them",
     .in_chassis = true,
     .add = add_sync,
     .run = run_sync_verb},
    {.name = "watch",
     .help = "Watch who is locked, what is programmed and how it ends",
     .in_chassis = true,
     .add = add_watch,
     .run = run_watch_verb},
    {.name = "events",
     .help = "Tell what happened to the flashes, also before the last restart",
     .in_chassis = true,
     .add = add_events,
     .run = run_events_verb},
    {.name = "metrics",
     .help = "Print counters and states of flashes and cards in the Prometheus text format",
     .in_chassis = true,
     .add = add_modules,
     .run = run_metrics_verb},
    {.name = "loader",
     .help = "Install a supervisor's boot loader, or fetch its files",
     .in_chassis = true,
     .add = add_loader,
     .run = run_loader_verb},
    {.name = "lock",
     .help = "Have the daemon take a module's lock",
     .in_chassis = true,
     .add = add_lock,
     .run = run_lock_verb},
    {.name = "unlock",
     .help = "Have the daemon free a module's lock",
     .in_chassis = true,
     .add = add_lock,
     .run = run_lock_verb},
    {.name = "explain",
     .help = "Tell what a result code means and what to do",
     .in_chassis = false,
     .add = add_explain,
     .run = run_explain_verb},
};

} // namespace

std::span<const verb> verbs()
{
    return VERBS;
}
