#include "show.h"

#include <algorithm>
#include <unistd.h>

#include "interrupt.h"
#include "inventory.h"
#include "serving_slot.h"

namespace
{

// Reading the version in an image takes a few seconds; a daemon may be busy with something else first.
constexpr unsigned DEFAULT_TIMEOUT_S = 30;

// In order, each once.
std::vector<unsigned> modules_of(const show_options &options)
{
    std::vector<unsigned> modules = options.modules.empty() ? modules_of_chassis() : options.modules;
    std::ranges::sort(modules);
    const auto repeated = std::ranges::unique(modules);
    modules.erase(repeated.begin(), repeated.end());
    return modules;
}

} // namespace

outcome run_show(const show_options &options, bool json)
{
    const std::vector<unsigned> modules = modules_of(options);
    const auto missing = std::ranges::find_if_not(modules, module_exists);
    if (missing != modules.end())
        return no_module_failure(*missing);
    const serving_slot serving = find_serving_slot(options.via);
    if (!serving.slot)
        return serving.problem;
    const unsigned slot = *serving.slot;

    catch_interrupt();
    const interrupt_ends_process guard(
        json ? STDOUT_FILENO : STDERR_FILENO,
        failure_text(failure(EXIT_INTERRUPTED, "interrupted before the versions were known", "ask again"), json));
    const chassis_report versions = collect_versions(slot, modules, options.timeout_s.value_or(DEFAULT_TIMEOUT_S));
    if (versions.serving_error != 0)
        return no_answer_failure(slot, versions.serving_error);
    return report_versions(versions, options.kind, slot_programs_one_module_only(slot));
}
