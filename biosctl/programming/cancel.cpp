#include "cancel.h"

#include "agent_messages.h"
#include "agent_result_text.h"
#include "inventory.h"
#include "orders.h"
#include "place_hints.h"
#include "serving_slot.h"

namespace
{

outcome report_cancelled(unsigned slot, std::optional<std::uint32_t> status)
{
    const std::string module = "module " + std::to_string(slot);
    if (!status)
        return failure(EXIT_FAILED, module + ": not cancelled: the agent of its card does not answer",
                       card_agent_hint(std::to_string(slot)));
    switch (*status) {
    case AGENT_OK:
        return {EXIT_DONE, module + ": cancelled; the flash is not touched"};
    case AGENT_ERR_NO_ORDER:
        return {EXIT_NOTHING_TO_DO, module + ": nothing is ordered"};
    case AGENT_ERR_PROGRAMMING:
        return failure(EXIT_BUSY, module + ": not cancelled: the flash is being written, and is left to end",
                       "look at it with: biosctl watch");
    default:
        return failure(EXIT_FAILED, module + ": not cancelled: " + agent_status_text(*status),
                       agent_status_step(*status));
    }
}

} // namespace

outcome run_cancel(const cancel_options &options, bool)
{
    if (!module_exists(options.module))
        return no_module_failure(options.module);
    outcome told = report_cancelled(options.module, cancel_order(node_of_module(options.module), options.instance));
    told.json["command"] = "cancel";
    told.json["module"] = options.module;
    told.json["cancelled"] = told.exit == EXIT_DONE;
    if (told.exit != EXIT_DONE && told.exit != EXIT_NOTHING_TO_DO)
        told.json["error"] = told.headline.plain();
    return told;
}
