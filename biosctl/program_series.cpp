#include "program_series.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <unistd.h>

#include "flash_version.h"
#include "interrupt.h"
#include "inventory.h"
#include "program.h"
#include "progress_bar.h"
#include "verdict.h"

namespace
{

constexpr const char *NOT_TRIED = "not tried";
constexpr const char *NOT_ASKED = "not asked";
constexpr const char *NO_ANSWER = "no answer";
constexpr std::size_t SUMMARY_LINE_BYTES = 96;

// From the worst to the best; what is not in here is usage, which does not come from a programming.
constexpr std::array BY_SEVERITY{EXIT_INTERRUPTED, EXIT_FAILED, EXIT_NOT_FOUND,
                                 EXIT_BUSY,        EXIT_DONE,   EXIT_NOTHING_TO_DO};

bool is_failure(const outcome &end)
{
    return end.exit != EXIT_DONE && end.exit != EXIT_NOTHING_TO_DO;
}

// A supervisor that has lost its role would program its own flash, whatever it is asked for.
outcome not_active_any_more(const series_step &step, unsigned serving_slot)
{
    outcome end = failure(EXIT_FAILED,
                          "module " + std::to_string(step.module) + ": not programmed: slot " +
                              std::to_string(serving_slot) + " is not the active supervisor any more",
                          "look at the roles (chassis status) and begin again");
    end.json["outcome"] = NOT_ASKED;
    return end;
}

outcome interrupted_before(const series_step &step)
{
    outcome end =
        failure(EXIT_INTERRUPTED, "module " + std::to_string(step.module) + ": interrupted before it was asked for",
                "look at the cards with: biosctl show");
    end.json["outcome"] = NOT_ASKED;
    return end;
}

outcome program_and_check(const series_step &step, const series_options &options, const last_words_text &last_words)
{
    if (interrupted())
        return interrupted_before(step);
    if (!slot_is_active(options.serving_slot))
        return not_active_any_more(step, options.serving_slot);
    program_options each = options.each;
    each.module = step.module;
    each.via = options.serving_slot;
    outcome end = program_module(each, options.json ? STDOUT_FILENO : STDERR_FILENO, last_words);
    if (end.exit != EXIT_DONE || step.expected_version.empty())
        return end;
    return with_version_check(std::move(end), step.module, step.expected_version,
                              read_flash_version(options.serving_slot, step.module, options.version_timeout_s));
}

std::string series_line(const char *module, const std::string &what, const std::string &result,
                        const std::string &time)
{
    char line[SUMMARY_LINE_BYTES];
    (void)std::snprintf(line, sizeof line, "%-6s  %-24s  %-10s  %s", module, what.c_str(), result.c_str(),
                        time.c_str());
    return line;
}

std::string outcome_name(const series_result &result)
{
    return result.tried ? result.end.json.value("outcome", NO_ANSWER) : NOT_TRIED;
}

std::string result_cell(const series_result &result)
{
    return result.tried ? result.end.json.value("result", "-") : "-";
}

std::string time_cell(const series_result &result)
{
    if (!result.tried || !result.end.json.contains("elapsed_s"))
        return "-";
    return elapsed_text(result.end.json["elapsed_s"].get<unsigned>());
}

} // namespace

std::vector<series_result> run_series(const std::vector<series_step> &steps, const series_options &options,
                                      const series_report &report)
{
    std::vector<series_result> results;
    results.reserve(steps.size());
    for (const series_step &step : steps)
        results.push_back({.module = step.module});
    for (std::size_t k = 0; k < steps.size(); ++k) {
        const last_words_text last_words = [&](const outcome &end) {
            std::vector<series_result> so_far = results;
            so_far[k] = {steps[k].module, true, end};
            return options.json ? failure_text(report(so_far), true) : failure_text(end, false);
        };
        results[k] = {steps[k].module, true, program_and_check(steps[k], options, last_words)};
        if (!options.json)
            (void)print_outcome(results[k].end, false); // the exit code is that of the whole
        if (results[k].end.exit == EXIT_INTERRUPTED || (is_failure(results[k].end) && !options.keep_going))
            break;
    }
    return results;
}

std::string series_table(std::span<const series_result> results)
{
    std::string text = series_line("MODULE", "OUTCOME", "RESULT", "TIME");
    for (const series_result &result : results)
        text += "\n" + series_line(std::to_string(result.module).c_str(), outcome_name(result), result_cell(result),
                                   time_cell(result));
    return text;
}

nlohmann::ordered_json series_json(std::span<const series_result> results)
{
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const series_result &result : results) {
        nlohmann::ordered_json row{{"module", result.module}, {"outcome", outcome_name(result)}};
        if (result.tried)
            row["exit_code"] = static_cast<int>(result.end.exit);
        for (const auto &[name, value] : result.end.json.items()) {
            if (name != "command")
                row[name] = value;
        }
        array.push_back(std::move(row));
    }
    return array;
}

exit_code series_exit(std::span<const series_result> results)
{
    for (const exit_code exit : BY_SEVERITY) {
        if (std::any_of(results.begin(), results.end(),
                        [&](const series_result &result) { return result.tried && result.end.exit == exit; }))
            return exit;
    }
    return EXIT_NOTHING_TO_DO;
}

outcome with_version_check(outcome end, unsigned module, const std::string &expected, const std::string &found)
{
    const auto wanted = parse_version(expected);
    const auto held = parse_version(found);
    end.json["flash_version"] = found.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(found);
    if (wanted && held && wanted->number == held->number)
        return end;
    const std::string what = "module " + std::to_string(module) + ": programmed and verified, but its flash " +
                             (found.empty() ? "tells no version" : "holds " + found) + " and not " + expected +
                             ", the version that ships for it";
    outcome failed =
        failure(EXIT_FAILED, what, "compare the image trees of the supervisors (biosctl source --via SLOT)");
    failed.json["outcome"] = "other version";
    for (const auto &[name, value] : end.json.items()) {
        if (!failed.json.contains(name))
            failed.json[name] = value;
    }
    return failed;
}
