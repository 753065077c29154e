#include "show.h"

#include <algorithm>
#include <unistd.h>

#include "interrupt.h"
#include "inventory.h"
#include "serving_slot.h"

outcome run_show(const show_options &options, bool json)
{
    const std::vector<unsigned> modules = modules_named(options.modules);
    const auto missing = std::find_if_not(modules.begin(), modules.end(), module_exists);
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
    chassis_report versions = collect_versions(slot, modules, options.timeout_s.value_or(VERSIONS_TIMEOUT_S));
    if (options.kind == show_kind::audit) {
        check_event_logs(versions);
        check_flashes(versions);
    }
    return report_versions(versions, options.kind);
}
