#include "program_series.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <unistd.h>
#include <utility>

#include "flash_version.h"
#include "interrupt.h"
#include "inventory.h"
#include "place_hints.h"
#include "program.h"
#include "program_report.h"
#include "progress_bar.h"
#include "result_text.h"

namespace
{

constexpr std::size_t OUTCOME_COLUMNS = 24;
constexpr std::size_t RESULT_COLUMNS = 10; // "0x40710009"

// From the worst to the best; what is not in here is usage, which does not come from a programming.
constexpr std::array BY_SEVERITY{EXIT_INTERRUPTED, EXIT_FAILED, EXIT_NOT_FOUND,
                                 EXIT_BUSY,        EXIT_DONE,   EXIT_NOTHING_TO_DO};

programming_result untried(unsigned module)
{
    return {.subject = {.asked_module = module, .programmed_module = module}};
}

// A supervisor that has lost its role would program its own flash, whatever it is asked for.
outcome not_active_any_more(const series_step &step, unsigned serving_slot)
{
    return failure(EXIT_FAILED,
                   "module " + std::to_string(step.module) + ": " +
                       styled_text("not programmed", text_meaning::wrong) + ": slot " +
                       std::to_string(serving_slot) + " is not the active supervisor any more",
                   "look at the roles" + place_in_brackets(look_at::states) + " and begin again");
}

outcome interrupted_before(const series_step &step)
{
    return failure(EXIT_INTERRUPTED,
                   "module " + std::to_string(step.module) + ": interrupted before it was asked for",
                   "look at the cards with: biosctl show");
}

programming_result program_and_check(const series_step &step, const series_options &options,
                                     const last_words_text &last_words)
{
    const program_subject subject{step.module, step.module, options.serving_slot};
    if (interrupted())
        return not_asked(subject, interrupted_before(step));
    if (!slot_is_active(options.serving_slot))
        return not_asked(subject, not_active_any_more(step, options.serving_slot));
    program_options each = options.each;
    each.request.module = step.module;
    each.via = options.serving_slot;
    programming_result result = program_module(each, options.json ? STDOUT_FILENO : STDERR_FILENO, last_words);
    if (result.ending != programming_ending::verified || step.expected_version.empty())
        return result;
    return with_version(std::move(result), {step.expected_version, read_flash_version(step.module)});
}

text_meaning meaning_of(programming_ending ending)
{
    switch (ending) {
    case programming_ending::verified:
        return text_meaning::well;
    case programming_ending::not_tried:
    case programming_ending::nothing_to_do:
        return text_meaning::none;
    case programming_ending::interrupted:
    case programming_ending::timed_out:
        return text_meaning::to_do;
    default:
        return text_meaning::wrong;
    }
}

std::string result_cell(const programming_result &result)
{
    return result.has_code() ? code_text(result.code) : "";
}

std::string time_cell(const programming_result &result)
{
    return result.elapsed_s ? elapsed_text(*result.elapsed_s) : "";
}

} // namespace

std::vector<programming_result> run_series(const std::vector<series_step> &steps, const series_options &options,
                                           const series_report &report)
{
    std::vector<programming_result> results;
    results.reserve(steps.size());
    for (const series_step &step : steps)
        results.push_back(untried(step.module));
    for (std::size_t k = 0; k < steps.size(); ++k) {
        const last_words_text last_words = [&](const programming_result &result) {
            std::vector<programming_result> so_far = results;
            so_far[k] = result;
            return options.json ? failure_text(report(so_far), true)
                                : failure_text(report_programming(result), false);
        };
        results[k] = program_and_check(steps[k], options, last_words);
        if (!options.json)
            (void)print_outcome(report_programming(results[k]), false); // the exit code is that of the whole
        if (exit_of(results[k]) == EXIT_INTERRUPTED || (is_undone(results[k]) && !options.keep_going))
            break;
    }
    return results;
}

table series_table(std::span<const programming_result> results)
{
    table rows({{"MODULE"}, {"OUTCOME", OUTCOME_COLUMNS}, {"RESULT", RESULT_COLUMNS}, {"TIME"}});
    for (const programming_result &result : results)
        rows.add({std::to_string(result.subject.asked_module),
                  {ending_name(result.ending), meaning_of(result.ending)},
                  result_cell(result),
                  time_cell(result)});
    return rows;
}

nlohmann::ordered_json series_json(std::span<const programming_result> results)
{
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const programming_result &result : results) {
        nlohmann::ordered_json row{{"module", result.subject.asked_module},
                                   {"outcome", ending_name(result.ending)}};
        if (result.tried()) {
            row["exit_code"] = static_cast<int>(exit_of(result));
            add_programming_members(row, result);
        }
        array.push_back(std::move(row));
    }
    return array;
}

exit_code series_exit(std::span<const programming_result> results)
{
    for (const exit_code exit : BY_SEVERITY) {
        if (std::ranges::any_of(results, [&](const programming_result &result) {
                return result.tried() && exit_of(result) == exit;
            }))
            return exit;
    }
    return EXIT_NOTHING_TO_DO;
}
