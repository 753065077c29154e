#include "lock.h"

#include <cerrno>
#include <pwd.h>
#include <unistd.h>

#include "agent_messages.h"
#include "agent_result_text.h"
#include "bios_results.h"
#include "client.h"
#include "inventory.h"
#include "lock_holders.h"
#include "lock_messages.h"
#include "place_hints.h"
#include "result_text.h"
#include "serving_slot.h"

namespace
{

constexpr std::uint32_t LOCK_HELD = 0x80000000U | EBUSY; // as a daemon tells it
constexpr std::uint32_t LOCK_FREE = 0x80000000U | ENOENT;

using lock_holder = std::optional<chassis_module_lock_holder>;

// A name as it may stand in a request: the agents take printable characters without blanks.
std::string name_of(std::string text, const char *otherwise)
{
    std::erase_if(text, [](char character) { return character <= ' ' || character > '~'; });
    return text.empty() ? otherwise : text;
}

lock_operator this_operator()
{
    const passwd *const entry = ::getpwuid(::geteuid());
    char host[256] = {};
    (void)::gethostname(host, sizeof host - 1);
    return {name_of(entry != nullptr ? entry->pw_name : std::to_string(::geteuid()), "unknown"),
            name_of(host, "unknown")};
}

std::string module_text(unsigned module)
{
    return "module " + std::to_string(module);
}

void add_members(outcome &told, const char *command, unsigned module, const lock_holder &holder)
{
    told.json["outcome"] = told.exit == EXIT_DONE || told.exit == EXIT_NOTHING_TO_DO ? "done" : "failed";
    told.json["command"] = command;
    told.json["module"] = module;
    if (holder)
        told.json["holder"] = {{"slot", holder->slot},
                               {"pid", holder->pid},
                               {"owner", holder->owner},
                               {"reason", code_text(holder->reason)},
                               {"since", holder->since},
                               {"user", text_or_null(holder->user)},
                               {"host", text_or_null(holder->host)},
                               {"until", text_or_null(holder->until)}};
}

outcome succeeded(const std::string &headline)
{
    outcome told{.headline = headline};
    told.json["result"] = code_text(BIOS_OK);
    return told;
}

// Somebody else has it: who, and what can be done.
outcome held_failure(const std::string &what, const lock_holder &holder, const std::string &next)
{
    outcome told = failure_by_code(what, LOCK_HELD);
    if (holder)
        told.hints.insert(told.hints.begin(), {"lock", holder_text(*holder)});
    for (hint &line : told.hints) {
        if (std::string(line.label) == "next")
            line.text = next;
    }
    told.json["next"] = next;
    return told;
}

outcome no_agent_answer(const std::string &what, unsigned module)
{
    return failure(EXIT_FAILED, what + ": no agent that serves the module's lock answers",
                   card_agent_hint(std::to_string(module)));
}

outcome refused(const std::string &what, const operator_lock_reply &reply)
{
    return failure(EXIT_FAILED, what + ": " + agent_status_text(*reply.status), agent_status_step(*reply.status));
}

bool is_for_programming(const lock_holder &holder)
{
    return holder && holder->user.empty() && holder->reason == BIOS_ERR_BUSY;
}

// The daemon that has the lock frees it: with its agent alone it would ask for it again.
outcome free_at_daemon(const unlock_options &options, const chassis_module_lock_holder &holder)
{
    const std::string what = module_text(options.module) + ": unlock failed";
    client_endpoint endpoint;
    if (!endpoint.bound())
        return no_endpoint_failure();
    const std::uint32_t node = node_of_module(options.module);
    const request_answer answer = endpoint.request(
        node_of_module(holder.slot), encode_lock_request(BIOS_MODULE_LOCK_RELEASE, node), ANSWER_WAIT_LIMIT_S);
    if (!answer.answered)
        return no_answer_failure(holder.slot, answer.error);
    const auto result = decode_lock_answer(answer, BIOS_MODULE_LOCK_RELEASE, node);
    if (!result)
        return failure(EXIT_FAILED, slot_text(holder.slot) + ": the daemon's answer is not understood",
                       "check that biosctl and the daemon are of the same version");
    if (*result != BIOS_OK && *result != LOCK_FREE)
        return failure_by_code(what + " in " + slot_text(holder.slot), *result);
    if (const lock_holder still = find_lock_holder(node); still)
        return held_failure(what, still, "see who holds it with: biosctl watch --once");
    outcome told = succeeded(module_text(options.module) + ": not locked any more");
    if (is_for_programming(holder))
        told.hints.push_back({"note", "a programming that is still running goes on without the lock"});
    return told;
}

} // namespace

outcome report_lock(const lock_options &options, const operator_lock_reply &reply, const lock_holder &holder)
{
    const std::string module = module_text(options.module);
    const std::string what = module + ": lock failed";
    const auto judged = [&]() -> outcome {
        if (!reply.status)
            return no_agent_answer(what, options.module);
        if (*reply.status == AGENT_OK)
            return succeeded(module + ": locked for you until " + (holder ? holder->until : "its time is over") +
                             "; free it with: biosctl unlock " + std::to_string(options.module));
        if (*reply.status == AGENT_ERR_PROGRAMMED || is_for_programming(holder))
            return held_failure(what, holder,
                                "it is being programmed; wait for the end with: biosctl watch " +
                                    std::to_string(options.module));
        if (*reply.status == AGENT_ERR_LOCK_HELD)
            return held_failure(what, holder, "wait until it is free; see it with: biosctl watch --once");
        return refused(what, reply);
    };
    outcome told = judged();
    add_members(told, "lock", options.module, holder);
    return told;
}

outcome report_unlock(const unlock_options &options, const operator_lock_reply &reply, const lock_holder &holder)
{
    const std::string module = module_text(options.module);
    const std::string what = module + ": unlock failed";
    const std::string forced = "biosctl unlock " + std::to_string(options.module) + " --force";
    const auto judged = [&]() -> outcome {
        if (!reply.status)
            return no_agent_answer(what, options.module);
        if (*reply.status == AGENT_OK)
            return succeeded(module + ": not locked any more");
        if (*reply.status == AGENT_ERR_LOCK_FREE)
            return failure_by_code(module + ": nothing to free", LOCK_FREE);
        if (*reply.status != AGENT_ERR_LOCK_HELD)
            return refused(what, reply);
        if (is_for_programming(holder))
            return held_failure(
                what, holder, "wait for the end of the programming; it goes on without the lock after: " + forced);
        return held_failure(what, holder, "ask the holder; free it all the same with: " + forced);
    };
    outcome told = judged();
    add_members(told, "unlock", options.module, holder);
    return told;
}

outcome run_lock(const lock_options &options)
{
    if (!module_exists(options.module))
        return no_module_failure(options.module);
    const std::uint32_t node = node_of_module(options.module);
    const operator_lock_reply reply = ask_for_operator_lock(node, this_operator(), options.timeout_s);
    return report_lock(options, reply, reply.lock ? reply.lock : find_lock_holder(node));
}

outcome run_unlock(const unlock_options &options)
{
    if (!module_exists(options.module))
        return no_module_failure(options.module);
    const std::uint32_t node = node_of_module(options.module);
    const operator_lock_reply reply = ask_for_operator_unlock(node, this_operator(), options.force);
    const lock_holder holder = find_lock_holder(node);
    const bool is_a_process = reply.status == AGENT_ERR_LOCK_HELD && holder && holder->user.empty();
    // What a daemon has taken for a peer it frees for everybody.
    if (!is_a_process || (is_for_programming(holder) && !options.force))
        return report_unlock(options, reply, holder);
    outcome told = free_at_daemon(options, *holder);
    add_members(told, "unlock", options.module, find_lock_holder(node));
    return told;
}
