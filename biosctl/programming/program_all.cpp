#include "program_all.h"

#include <algorithm>

#include "card_groups.h"
#include "interrupt.h"
#include "inventory.h"
#include "place_hints.h"
#include "serving_slot.h"

namespace
{

std::vector<unsigned> standby_supervisors()
{
    std::vector<unsigned> standbys;
    for (const unsigned module : modules_of_chassis()) {
        if (slot_is_standby(module))
            standbys.push_back(module);
    }
    return standbys;
}

std::string left_out_text(unsigned serving_slot, unsigned module)
{
    return "module " + std::to_string(module) + " is left out: the supervisor in slot " +
           std::to_string(serving_slot) + " programs module " + std::to_string(TARVIK_A_MODULE_NUM) +
           " whatever module it is asked for";
}

void report_ending(outcome &told, const std::vector<programming_result> &results)
{
    if (told.exit == EXIT_NOTHING_TO_DO) {
        told.headline = "nothing to do";
        return;
    }
    std::string failed;
    for (const programming_result &result : results) {
        if (is_undone(result))
            failed += (failed.empty() ? "" : ", ") + std::to_string(result.subject.asked_module);
    }
    if (!failed.empty()) {
        told.headline = styled_text("not all programmed", text_meaning::wrong) + ": module " + failed;
        return;
    }
    told.headline = "all " + styled_text("programmed and verified", text_meaning::well);
    told.hints = {{"next", "reboot the cards for the new BIOS to take effect"}};
}

} // namespace

supervisor_order order_of(unsigned active, const std::vector<unsigned> &standbys,
                          std::optional<unsigned> only_module)
{
    std::vector<unsigned> supervisors = standbys;
    supervisors.push_back(active);
    supervisor_order order;
    for (const unsigned module : supervisors)
        (only_module && module != *only_module ? order.left_out : order.modules).push_back(module);
    return order;
}

outcome report_program_all(unsigned serving_slot, const supervisor_order &order,
                           const std::vector<programming_result> &results)
{
    outcome told{.exit = series_exit(results), .report = {series_table(results)}};
    report_ending(told, results);
    told.json = {{"command", "program all"},
                 {"serving_slot", serving_slot},
                 {"modules", series_json(results)},
                 {"left_out", order.left_out}};
    for (const unsigned module : order.left_out)
        told.report.push_back(text_line{"note: " + left_out_text(serving_slot, module)});
    if (told.exit != EXIT_DONE)
        told.json["error"] = told.headline.plain();
    return told;
}

outcome run_program_all(const program_all_options &options, bool json)
{
    const serving_slot serving = find_serving_slot(std::nullopt);
    if (!serving.slot)
        return serving.problem;
    const unsigned slot = *serving.slot;
    const supervisor_order order =
        order_of(slot, standby_supervisors(),
                 slot_programs_one_module_only(slot) ? std::optional(TARVIK_A_MODULE_NUM) : std::nullopt);
    if (order.modules.empty())
        return failure(EXIT_NOT_FOUND,
                       "there is no supervisor in slot " + std::to_string(TARVIK_A_MODULE_NUM) +
                           ", the only module that the supervisor in slot " + std::to_string(slot) + " programs",
                       "see what is in the chassis with: " + place_text(look_at::cards));
    std::vector<series_step> steps;
    for (const unsigned module : order.modules)
        steps.push_back({.module = module});

    catch_interrupt();
    const auto report = [&](const std::vector<programming_result> &results) {
        return report_program_all(slot, order, results);
    };
    return report(run_series(
        steps, {.each = options.each, .serving_slot = slot, .keep_going = options.keep_going, .json = json},
        report));
}
