#include <unistd.h>

#include "bios_results.h"
#include "client.h"
#include "interrupt.h"
#include "inventory.h"
#include "loader.h"
#include "loader_messages.h"
#include "result_text.h"
#include "serving_slot.h"

namespace
{

// No end of its own: the wait ends with the daemon.
constexpr unsigned NO_LIMIT_S = 1'000'000;

constexpr const char *REMOVED = "the daemon removes it after every installation, whatever comes of it";

nlohmann::ordered_json json_head(const loader_install_options &options, unsigned slot)
{
    return {{"command", "loader install"},
            {"serving_slot", slot},
            {"image", options.image_path},
            {"remove_image", options.remove_image}};
}

outcome interrupted_installation()
{
    return failure(EXIT_INTERRUPTED, "interrupted; the installation goes on in the card",
                   "look at /tmp/install_loader.log on the card before a reboot");
}

} // namespace

outcome report_loader_install(const loader_install_options &options, unsigned slot, std::uint32_t result)
{
    const std::string where = slot_text(slot) + ": boot loader of " + options.image_path;
    outcome told;
    if (result == BIOS_OK) {
        const std::string next = "reboot the card for the new boot loader to take effect";
        told.headline = where + " installed (result " + code_text(result) + ")";
        told.hints = {{"next", next}};
        told.json = {{"outcome", "installed"}, {"result", code_text(result)}, {"next", next}};
    } else {
        told = failure_by_code(where + " not installed", result);
        told.json["outcome"] = told.exit == EXIT_NOTHING_TO_DO ? "nothing to do" : "failed";
    }
    if (options.remove_image)
        told.hints.push_back({"image", REMOVED});
    told.json.update(json_head(options, slot));
    return told;
}

outcome run_loader_install(const loader_install_options &options, bool json)
{
    const serving_slot serving = find_serving_slot(options.via);
    if (!serving.slot)
        return serving.problem;
    const unsigned slot = *serving.slot;
    client_endpoint endpoint;
    if (!endpoint.bound())
        return no_endpoint_failure();

    catch_interrupt();
    const interrupt_ends_process guard(json ? STDOUT_FILENO : STDERR_FILENO,
                                       failure_text(interrupted_installation(), json));
    const request_answer answer = endpoint.request(
        node_of_module(slot), encode_loader_install_request(options.image_path, options.remove_image),
        options.timeout_s.value_or(NO_LIMIT_S));
    if (!answer.answered)
        return no_answer_failure(slot, answer.error);
    return report_loader_install(options, slot, answer.status);
}
