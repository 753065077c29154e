#include "verbs.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent_messages.h"
#include "argument_kinds.h"
#include "bios_refusals.h"
#include "cancel.h"
#include "events.h"
#include "explain.h"
#include "file_search.h"
#include "loader.h"
#include "loader_messages.h"
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

void add_via(CLI::App &command, std::optional<unsigned> &via)
{
    command.add_option("--via", via, "Ask the daemon of this slot, not the active supervisor's")
        ->transform(decimal(1, PFM_MODULE_COUNT))
        ->type_name("SLOT");
}

void add_timeout(CLI::App &command, std::optional<unsigned> &timeout_s, const std::string &meaning)
{
    command.add_option("--timeout", timeout_s, meaning)->transform(decimal(1, 1'000'000))->type_name("SECONDS");
}

void add_keep_going(CLI::App &command, bool &keep_going)
{
    command.add_flag("--keep-going", keep_going, "Go on with the other modules after a failure");
}

void add_modules(CLI::App &command, std::vector<unsigned> &modules)
{
    command.add_option("MODULE", modules, "Module (slot) numbers; without: all")
        ->transform(decimal(1, PFM_MODULE_COUNT));
}

verb_run add_versions(CLI::App &command, show_kind kind)
{
    const auto options = std::make_shared<show_options>(show_options{.kind = kind});
    add_modules(command, options->modules);
    add_via(command, options->via);
    add_timeout(command, options->timeout_s, "Wait no longer for one answer (30)");
    return [options](bool json) { return run_show(*options, json); };
}

verb_run add_show(CLI::App &command)
{
    return add_versions(command, show_kind::show);
}

verb_run add_audit(CLI::App &command)
{
    return add_versions(command, show_kind::audit);
}

verb_run add_source(CLI::App &command)
{
    const auto options = std::make_shared<source_options>();
    add_via(command, options->via);
    command
        .add_option("--image", options->image_path,
                    "System image on the card, bootflash:NAME or a path; without: the image tree")
        ->transform(image_on_card(IMAGE_PATH_BYTES_MAX))
        ->type_name("TEXT");
    add_timeout(command, options->timeout_s, "Wait no longer for the answer (65)");
    return [options](bool json) { return run_source(*options, json); };
}

// What an order may take back of the card's checks.
void add_force(CLI::App &command, std::uint32_t &forced)
{
    static const std::map<std::string, std::uint32_t> FORCES = {{"older", BIOS_FORCE_OLDER},
                                                                {"family", BIOS_FORCE_FAMILY},
                                                                {"no-version", BIOS_FORCE_NO_VERSION},
                                                                {"smaller", BIOS_FORCE_SMALLER}};
    command
        .add_option_function<std::vector<std::string>>(
            "--force",
            [&forced](const std::vector<std::string> &words) {
                for (const std::string &word : words)
                    forced |= FORCES.at(word);
            },
            "Program an image that is older, of another family, without a version, or smaller than the flash")
        ->delimiter(',')
        ->check(CLI::IsMember(FORCES))
        ->type_name("older|family|no-version|smaller");
    command.add_flag_callback(
        "--allow-older", [&forced] { forced |= BIOS_FORCE_OLDER; }, "The same as --force=older");
}

// The module is a number or "all".
struct program_words {
    std::string module = {};
    unsigned type = 0;
    bool keep_going = false;
    program_options options = {};
};

outcome run_program_words(const CLI::App &command, program_words words, bool json)
{
    const bool all = words.module == ALL_MODULES;
    if (all && command.count("--via") > 0)
        return failure(EXIT_USAGE_ERROR, "--via does not go with all: the active supervisor programs all",
                       "biosctl program --help");
    if (all && words.options.dry_run)
        return failure(EXIT_USAGE_ERROR, "--dry-run goes with one module; of all: biosctl sync --dry-run",
                       "biosctl program --help");
    if (!all && words.keep_going)
        return failure(EXIT_USAGE_ERROR, "--keep-going goes with all only", "biosctl program --help");
    words.options.request.type = static_cast<std::uint8_t>(words.type);
    if (all)
        return run_program_all({.each = words.options, .keep_going = words.keep_going}, json);
    words.options.request.module = static_cast<unsigned>(std::stoul(words.module));
    return run_program(words.options, json);
}

verb_run add_program(CLI::App &command)
{
    const auto words = std::make_shared<program_words>();
    command
        .add_option("MODULE", words->module,
                    "Module (slot) number; all: the standby supervisor, then the active one's own card")
        ->required()
        ->transform(decimal_or_all(1, PFM_MODULE_COUNT));
    add_via(command, words->options.via);
    command
        .add_option("--image", words->options.request.image,
                    "System image on the card, bootflash:NAME or a path; without: the image tree")
        ->transform(image_uri())
        ->type_name("TEXT");
    add_force(command, words->options.forced);
    command.add_flag("--dry-run", words->options.dry_run, "Say what would be programmed, and program nothing");
    command.add_option("--type", words->type, "Flash instance, 0 is the primary one")->transform(decimal(0, 255));
    add_timeout(command, words->options.timeout_s, "Stop watching after so long; the programming goes on");
    add_keep_going(command, words->keep_going);
    return [words, &command](bool json) { return run_program_words(command, *words, json); };
}

verb_run add_cancel(CLI::App &command)
{
    const auto options = std::make_shared<cancel_options>();
    command.add_option("MODULE", options->module, "Module (slot) number")
        ->required()
        ->transform(decimal(1, PFM_MODULE_COUNT));
    command.add_option("--type", options->instance, "Flash instance, 0 is the primary one")
        ->transform(decimal(0, 255));
    return [options](bool json) { return run_cancel(*options, json); };
}

verb_run add_sync(CLI::App &command)
{
    const auto options = std::make_shared<sync_options>();
    add_modules(command, options->modules);
    command.add_flag("--allow-older", options->allow_older, "Program an image that is older than the flash, too");
    command.add_flag("--dry-run", options->dry_run, "Tell what would be programmed, and program nothing");
    add_keep_going(command, options->keep_going);
    add_timeout(command, options->timeout_s, "Wait no longer for one version (30)");
    return [options](bool json) { return run_sync(*options, json); };
}

verb_run add_watch(CLI::App &command)
{
    const auto options = std::make_shared<watch_options>();
    add_modules(command, options->modules);
    command
        .add_option_function<unsigned>(
            "--interval", [options](unsigned ms) { options->interval = std::chrono::milliseconds(ms); },
            "Look so often (0.5)")
        ->transform(seconds_in_ms(100, 3'600'000))
        ->type_name("SECONDS");
    command
        .add_option_function<unsigned>(
            "--for", [options](unsigned seconds) { options->duration = std::chrono::seconds(seconds); },
            "Leave after so long; without: with Ctrl-C")
        ->transform(decimal(1, 1'000'000))
        ->type_name("SECONDS");
    command.add_flag("--once", options->once, "Look once");
    return [options](bool json) { return run_watch(*options, json); };
}

verb_run add_events(CLI::App &command)
{
    const auto options = std::make_shared<events_options>();
    add_modules(command, options->modules);
    command.add_option("--last", options->last, "Only so many of what has happened")
        ->transform(decimal(0, 1'000'000))
        ->type_name("COUNT");
    command.add_flag("--follow", options->follow, "Go on with what happens, until Ctrl-C");
    return [options](bool json) { return run_events(*options, json); };
}

verb_run add_metrics(CLI::App &command)
{
    const auto modules = std::make_shared<std::vector<unsigned>>();
    add_modules(command, *modules);
    return [modules](bool) { return run_metrics(*modules); };
}

verb_run add_loader_install(CLI::App &command)
{
    const auto options = std::make_shared<loader_install_options>();
    command.add_option("IMAGE", options->image_path, "System image on the card, bootflash:NAME or a path")
        ->required()
        ->transform(image_on_card(LOADER_IMAGE_PATH_BYTES_MAX));
    command.add_flag("--remove", options->remove_image, "Remove the system image afterwards, whatever came of it");
    add_via(command, options->via);
    add_timeout(command, options->timeout_s, "Wait no longer for the end; the installation goes on");
    return [options](bool json) { return run_loader_install(*options, json); };
}

verb_run add_loader_file(CLI::App &command, loader_file file)
{
    const auto options = std::make_shared<loader_file_options>(loader_file_options{.file = file});
    command.add_option("--output", options->output, "File to write")->required()->type_name("FILE");
    command.add_option("--size", options->size_bytes, "How much of it; without: all")
        ->transform(decimal(0, LOADER_FILE_BYTES_MAX))
        ->type_name("BYTES");
    command.add_flag("--force", options->overwrite, "Replace the file when it is there");
    add_via(command, options->via);
    add_timeout(command, options->timeout_s, "Wait no longer for one answer (300)");
    return [options](bool json) { return run_loader_file(*options, json); };
}

verb_run add_loader(CLI::App &command)
{
    command.require_subcommand(1);
    CLI::App &install = *command.add_subcommand("install", "Install the boot loader of a system image");
    const verb_run run_install = add_loader_install(install);
    CLI::App &get = *command.add_subcommand("get", "Fetch the installed boot loader");
    const verb_run run_get = add_loader_file(get, loader_file::loader);
    const verb_run run_ks =
        add_loader_file(*command.add_subcommand("ks", "Fetch the file /etc/srg-ks.sro"), loader_file::ks);
    return [=, &install, &get](bool json) {
        return install.parsed() ? run_install(json) : (get.parsed() ? run_get(json) : run_ks(json));
    };
}

void add_locked_module(CLI::App &command, unsigned &module)
{
    command.add_option("MODULE", module, "Module (slot) number")
        ->required()
        ->transform(decimal(1, PFM_MODULE_COUNT))
        ->type_name("TEXT");
}

verb_run add_lock(CLI::App &command)
{
    const auto options = std::make_shared<lock_options>();
    add_locked_module(command, options->module);
    command
        .add_option("--timeout", options->timeout_s,
                    "Seconds after which the lock ends by itself (default " + std::to_string(LOCK_TIMEOUT_S) + ")")
        ->transform(decimal(1, AGENT_LOCK_SECONDS_MAX))
        ->type_name("SECONDS");
    return [options](bool) { return run_lock(*options); };
}

verb_run add_unlock(CLI::App &command)
{
    const auto options = std::make_shared<unlock_options>();
    add_locked_module(command, options->module);
    command.add_flag("--force", options->force, "Also the lock of a programming or of another operator");
    return [options](bool) { return run_unlock(*options); };
}

verb_run add_explain(CLI::App &command)
{
    const auto code = std::make_shared<std::uint32_t>(0);
    command.add_option("CODE", *code, "Result code")->required()->transform(result_code())->type_name("TEXT");
    return [code](bool) { return run_explain(*code); };
}

constexpr verb VERBS[] = {
    {.name = "show",
     .help = "Show the versions in the image, in the flash and running of every card",
     .in_chassis = true,
     .add = add_show},
    {.name = "audit",
     .help = "The same, and fail when any card is not in step",
     .in_chassis = true,
     .add = add_audit},
    {.name = "source",
     .help = "Show the BIOS versions in a card's image tree or system image",
     .in_chassis = true,
     .add = add_source},
    {.name = "program",
     .help = "Program a module's BIOS flash and follow it to its end",
     .in_chassis = true,
     .add = add_program},
    {.name = "cancel",
     .help = "Cancel a programming that was ordered and has not begun",
     .in_chassis = true,
     .add = add_cancel},
    {.name = "sync",
     .help = "Program the cards whose flash is out of step with the image that ships for them",
     .in_chassis = true,
     .add = add_sync},
    {.name = "watch",
     .help = "Watch who is locked, what is programmed and how it ends",
     .in_chassis = true,
     .add = add_watch},
    {.name = "events",
     .help = "Tell what happened to the flashes, also before the last restart",
     .in_chassis = true,
     .add = add_events},
    {.name = "metrics",
     .help = "Print counters and states of flashes and cards in the Prometheus text format",
     .in_chassis = true,
     .add = add_metrics},
    {.name = "loader",
     .help = "Install a supervisor's boot loader, or fetch its files",
     .in_chassis = true,
     .add = add_loader},
    {.name = "lock", .help = "Lock a module: nobody can have it programmed", .in_chassis = true, .add = add_lock},
    {.name = "unlock", .help = "Free a module's lock", .in_chassis = true, .add = add_unlock},
    {.name = "explain",
     .help = "Tell what a result code means and what to do",
     .in_chassis = false,
     .add = add_explain},
};

} // namespace

std::span<const verb> verbs()
{
    return VERBS;
}
