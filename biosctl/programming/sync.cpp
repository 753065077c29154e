#include "sync.h"

#include <algorithm>
#include <unistd.h>

#include "bios_refusals.h"
#include "card_groups.h"
#include "interrupt.h"
#include "inventory.h"
#include "lock_holders.h"
#include "place_hints.h"
#include "serving_slot.h"
#include "show_report.h"

namespace
{

constexpr styled_literal NOT_IN_STEP{"not in step", text_meaning::wrong};

struct subject {
    unsigned serving_slot;
    std::vector<unsigned> modules; // in order, each once
};

sync_role role_of(unsigned module, unsigned serving_slot)
{
    if (module == serving_slot)
        return sync_role::active;
    return slot_is_standby(module) ? sync_role::standby : sync_role::other;
}

std::string interrupted_text(const std::string &what, bool json)
{
    return failure_text(failure(EXIT_INTERRUPTED, what, "look at the cards with: biosctl show"), json);
}

//   error_out  0, or why the serving daemon could not be asked at all; then nothing is seen
sync_view look(const subject &of, const sync_options &options, int &error_out)
{
    const chassis_report versions =
        collect_versions(of.serving_slot, of.modules, options.timeout_s.value_or(VERSIONS_TIMEOUT_S));
    error_out = versions.serving_error;
    if (error_out != 0)
        return {};
    std::vector<sync_card> cards;
    cards.reserve(versions.cards.size());
    for (const card_report &card : versions.cards)
        cards.push_back({card, role_of(card.module, of.serving_slot)});
    sync_rules rules{.allow_older = options.allow_older};
    if (slot_programs_one_module_only(of.serving_slot))
        rules.only_module = TARVIK_A_MODULE_NUM;
    return {.plan = plan_sync(std::move(cards), rules), .cards = versions.cards};
}

std::size_t count_of(const std::vector<sync_step> &plan, sync_action action)
{
    return static_cast<std::size_t>(
        std::count_if(plan.begin(), plan.end(), [&](const sync_step &step) { return step.action == action; }));
}

bool any_to_program(const std::vector<sync_step> &plan)
{
    return std::any_of(plan.begin(), plan.end(),
                       [](const sync_step &step) { return has_to_be_programmed(step.action); });
}

bool all_in_step(const std::vector<sync_step> &plan)
{
    return std::all_of(plan.begin(), plan.end(), [](const sync_step &step) { return is_in_step(step.action); });
}

// What is said of cards that are all in step, and what is left to do.
void report_in_step(outcome &told, const std::vector<sync_step> &plan)
{
    const std::size_t pending = count_of(plan, sync_action::reboot_pending);
    told.headline += "all " + styled_text("in step", text_meaning::well);
    if (pending == 0)
        return;
    told.headline +=
        " (" + styled_text("reboot pending", text_meaning::to_do) + ": " + std::to_string(pending) + ")";
    told.hints = {{"next", "reboot the cards for the new BIOS to take effect"}};
}

// The modules that are not in step, and what may help.
void report_out_of_step(outcome &told, const std::vector<sync_step> &plan)
{
    std::string modules;
    for (const sync_step &step : plan) {
        if (!is_in_step(step.action))
            modules += (modules.empty() ? "" : ", ") + std::to_string(step.module);
    }
    told.headline = styled_text(NOT_IN_STEP) + ": module " + modules;
    if (count_of(plan, sync_action::left_newer) > 0)
        told.hints = {{"next", "biosctl sync --allow-older programs an older image, too"}};
}

nlohmann::ordered_json json_head(unsigned serving_slot, const std::vector<sync_step> &plan, bool dry_run)
{
    return {{"command", "sync"}, {"serving_slot", serving_slot}, {"dry_run", dry_run}, {"plan", plan_json(plan)}};
}

outcome report_busy(unsigned serving_slot, bool readable)
{
    outcome told =
        failure(readable ? EXIT_BUSY : EXIT_FAILED,
                readable ? "not begun: a programming runs in the chassis"
                         : "not begun: the module locks cannot be read, and with them whether a "
                           "programming runs",
                readable ? "try again when it has ended" + place_in_brackets(look_at::states) : no_locks_hint());
    told.json["command"] = "sync";
    told.json["serving_slot"] = serving_slot;
    return told;
}

outcome carry_out(const subject &of, const std::vector<sync_step> &plan, const sync_options &options, bool json)
{
    std::vector<series_step> steps;
    for (const sync_step &step : plan) {
        if (has_to_be_programmed(step.action))
            steps.push_back({step.module, step.shipped});
    }
    if (!json)
        print_report(plan_text(plan));
    const auto results = run_series(steps,
                                    {.each = {.forced = options.allow_older ? std::uint32_t{BIOS_FORCE_OLDER} : 0},
                                     .serving_slot = of.serving_slot,
                                     .keep_going = options.keep_going,
                                     .json = json},
                                    [&](const std::vector<programming_result> &so_far) {
                                        return report_sync(of.serving_slot, plan, so_far, {});
                                    });
    if (series_exit(results) == EXIT_INTERRUPTED)
        return report_sync(of.serving_slot, plan, results, {});
    const interrupt_ends_process guard(json ? STDOUT_FILENO : STDERR_FILENO,
                                       interrupted_text("interrupted before the versions were read again", json));
    int error = 0;
    return report_sync(of.serving_slot, plan, results, look(of, options, error));
}

} // namespace

outcome report_plan(unsigned serving_slot, const std::vector<sync_step> &plan, bool dry_run)
{
    outcome told{.json = json_head(serving_slot, plan, dry_run), .report = plan_text(plan)};
    told.json["all_in_step"] = all_in_step(plan);
    told.json["reboot_pending"] = count_of(plan, sync_action::reboot_pending);
    if (count_of(plan, sync_action::left_busy) > 0) {
        told.exit = EXIT_BUSY;
        told.headline = "not begun: a programming runs in the chassis";
        told.hints = {{"next", "try again when it has ended"}};
    } else if (any_to_program(plan)) {
        told.headline = "nothing was programmed (--dry-run)";
    } else if (all_in_step(plan)) {
        told.exit = EXIT_NOTHING_TO_DO;
        told.headline = "nothing to do: ";
        report_in_step(told, plan);
    } else {
        told.exit = EXIT_FAILED;
        report_out_of_step(told, plan);
    }
    if (told.exit != EXIT_DONE && told.exit != EXIT_NOTHING_TO_DO)
        told.json["error"] = told.headline.plain();
    return told;
}

outcome report_sync(unsigned serving_slot, const std::vector<sync_step> &plan,
                    const std::vector<programming_result> &results, const sync_view &after)
{
    const bool seen = !after.plan.empty();
    const bool in_step = seen && all_in_step(after.plan);
    outcome told{.exit = series_exit(results), .json = json_head(serving_slot, plan, false)};
    told.report = {series_table(results)};
    if (seen)
        told.report.push_back(version_table(after.cards));
    if (told.exit == EXIT_DONE || told.exit == EXIT_NOTHING_TO_DO)
        told.exit = in_step ? EXIT_DONE : EXIT_FAILED;
    if (!seen)
        told.headline = styled_text(NOT_IN_STEP) + ", as far as is known: the versions were not read again";
    else if (in_step)
        report_in_step(told, after.plan);
    else
        report_out_of_step(told, after.plan);
    told.json["programmed"] = series_json(results);
    told.json["cards"] = json_of_cards(after.cards);
    told.json["all_in_step"] = in_step;
    told.json["reboot_pending"] = count_of(after.plan, sync_action::reboot_pending);
    if (told.exit != EXIT_DONE)
        told.json["error"] = told.headline.plain();
    return told;
}

outcome run_sync(const sync_options &options, bool json)
{
    subject of{.serving_slot = 0, .modules = modules_named(options.modules)};
    const auto missing = std::find_if_not(of.modules.begin(), of.modules.end(), module_exists);
    if (missing != of.modules.end())
        return no_module_failure(*missing);
    const serving_slot serving = find_serving_slot(std::nullopt);
    if (!serving.slot)
        return serving.problem;
    of.serving_slot = *serving.slot;
    if (const programming_locks locks = find_programming(); !locks.readable || locks.any)
        return report_busy(of.serving_slot, locks.readable);

    catch_interrupt();
    int error = 0;
    const std::vector<sync_step> plan = [&] {
        const interrupt_ends_process guard(
            json ? STDOUT_FILENO : STDERR_FILENO,
            interrupted_text("interrupted before the versions were known; nothing was programmed", json));
        return look(of, options, error).plan;
    }();
    if (error != 0)
        return no_answer_failure(of.serving_slot, error);
    if (options.dry_run || !any_to_program(plan) || count_of(plan, sync_action::left_busy) > 0)
        return report_plan(of.serving_slot, plan, options.dry_run);
    return carry_out(of, plan, options, json);
}
