#include "lock.h"

#include <cstdio>

#include "bios_results.h"
#include "client.h"
#include "inventory.h"
#include "lock_holders.h"
#include "lock_messages.h"
#include "result_text.h"
#include "serving_slot.h"

namespace
{

// The daemon answers at once, but it may be busy with the installation of a boot loader.

bool is_unlock(const lock_options &options)
{
    return options.operation == BIOS_MODULE_LOCK_RELEASE;
}

// The daemon frees the lock that it took for a programming as well as one that it took for a peer.
void warn_about_programming(std::uint32_t locked_node)
{
    const auto holder = find_lock_holder(locked_node);
    if (!holder || holder->reason != BIOS_ERR_BUSY)
        return;
    (void)std::fprintf(stderr,
                       "biosctl: note: the lock is %s; a programming that is still running goes on without "
                       "its protection\n",
                       holder_text(*holder).c_str());
}

void tell_holder(outcome &told, const chassis_module_lock_holder &holder)
{
    told.hints.push_back({"lock", holder_text(holder)});
    told.json["holder"] = {{"slot", holder.slot},
                           {"pid", holder.pid},
                           {"owner", holder.owner},
                           {"reason", code_text(holder.reason)},
                           {"since", holder.since}};
}

} // namespace

outcome report_lock(const lock_options &options, unsigned slot, std::uint32_t result)
{
    const std::string module = "module " + std::to_string(options.module);
    const char *command = is_unlock(options) ? "unlock" : "lock";
    outcome told;
    if (result == BIOS_OK) {
        told.headline = is_unlock(options)
                            ? module + ": not locked for you any more by the daemon of slot " + std::to_string(slot)
                            : module + ": locked by the daemon of slot " + std::to_string(slot) +
                                  "; free it with: biosctl unlock " + std::to_string(options.module);
        told.json["outcome"] = "done";
        told.json["result"] = code_text(result);
    } else {
        told = failure_by_code(module + ": " + command + " failed in slot " + std::to_string(slot), result);
        told.json["outcome"] = "failed";
    }
    told.json["command"] = command;
    told.json["module"] = options.module;
    told.json["serving_slot"] = slot;
    return told;
}

outcome run_lock(const lock_options &options)
{
    const serving_slot serving = find_serving_slot(options.module, options.via);
    if (!serving.slot)
        return serving.problem;
    const unsigned slot = *serving.slot;
    const std::uint32_t locked_node = node_of_module(options.module);

    client_endpoint endpoint;
    if (!endpoint.bound())
        return no_endpoint_failure();
    if (is_unlock(options))
        warn_about_programming(locked_node);
    const request_answer answer =
        endpoint.request(node_of_module(slot), encode_lock_request(options.operation, locked_node), ANSWER_WAIT_LIMIT_S);
    if (!answer.answered)
        return no_answer_failure(slot, answer.error);
    const auto result = decode_lock_answer(answer, options.operation, locked_node);
    if (!result)
        return failure(EXIT_FAILED, slot_text(slot) + ": the daemon's answer is not understood",
                       "check that biosctl and the daemon are of the same version");
    outcome told = report_lock(options, slot, *result);
    // After an unlock too: the daemon also says yes when the lock was never taken for a peer.
    if (const auto holder = find_lock_holder(locked_node); holder)
        tell_holder(told, *holder);
    return told;
}
