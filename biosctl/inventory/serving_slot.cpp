#include "serving_slot.h"

#include <cerrno>
#include <cstring>

#include "client.h"
#include "inventory.h"
#include "place_hints.h"
#include "result_text.h"

namespace
{

outcome not_in_chassis(const std::string &what)
{
    return failure(EXIT_NOT_FOUND, what, "see what is in the chassis with: " + place_text(look_at::cards));
}

} // namespace

serving_slot find_serving_slot(unsigned module, std::optional<unsigned> via)
{
    if (!module_exists(module))
        return {std::nullopt, no_module_failure(module)};
    return find_serving_slot(via);
}

serving_slot find_serving_slot(std::optional<unsigned> via)
{
    if (via && !module_exists(*via))
        return {std::nullopt,
                not_in_chassis("there is no card in slot " + std::to_string(*via) + " (--via) of the chassis")};
    if (via)
        return {via, {}};
    if (const auto active = active_supervisor(); active)
        return {active, {}};
    return {std::nullopt, failure(EXIT_FAILED, "no supervisor of the chassis is active",
                                  "make one active" + place_in_brackets(look_at::states) +
                                      ", or name the slot to ask with --via SLOT")};
}

outcome no_module_failure(unsigned module)
{
    return not_in_chassis("there is no module " + std::to_string(module) + " in the chassis");
}

outcome no_endpoint_failure()
{
    return failure(EXIT_FAILED,
                   std::string("no transport endpoint could be bound in the chassis: ") + std::strerror(errno),
                   no_endpoint_hint());
}

outcome no_answer_failure(unsigned slot, int error)
{
    std::string next = "check that the card is up (" + place_text(look_at::states) + ", " +
                       place_text(look_at::log, std::to_string(slot)) + ")";
    if (error == MTS_ERRNO_TIMED_OUT || error == ECONNRESET)
        next += "; it may have taken the request: look before you repeat it";
    outcome end = failure(EXIT_FAILED,
                          slot_text(slot) + ": " + styled_text(no_answer_text(error), text_meaning::wrong), next);
    end.json["serving_slot"] = slot;
    return end;
}
