#include "agents.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <memory>
#include <unistd.h>

#include "agent_answers.h"
#include "agent_messages.h"
#include "client.h"
#include "daemon_node.h"
#include "monotonic_clock.h"
#include "mts_tools.h"
#include "printable_text.h"
#include "sysmgr.h"
#include "text_field.h"

namespace
{

using bytes = std::vector<std::uint8_t>;

constexpr std::int64_t SILENCE_US = 10 * MICROSECONDS;
constexpr unsigned ATTEMPTS = 3;
constexpr std::int64_t BUSY_PATIENCE_US = 5 * MICROSECONDS;
constexpr unsigned BUSY_PAUSE_US = 20'000;

// One endpoint for all that this process asks; made anew when it could not be bound.
struct own_endpoint {
    std::unique_ptr<client_endpoint> bound = {};
    pid_t owner = 0; // that of a process that was forked from is not this one's
};

own_endpoint &holder()
{
    static own_endpoint held;
    if (held.bound && held.owner != ::getpid())
        (void)held.bound.release();
    held.owner = ::getpid();
    return held;
}

client_endpoint &endpoint()
{
    own_endpoint &held = holder();
    if (!held.bound || !held.bound->bound())
        held.bound = std::make_unique<client_endpoint>();
    return *held.bound;
}

// The agents that have let a request time out, and until when they are asked nothing: each of many questions would
// wait as long again.
std::map<std::uint32_t, std::int64_t> &silent_agents()
{
    static std::map<std::uint32_t, std::int64_t> until_us;
    return until_us;
}

bool is_silent(std::uint32_t node)
{
    const auto found = silent_agents().find(node);
    return found != silent_agents().end() && monotonic_us() < found->second;
}

std::optional<bytes> ask(std::uint32_t node, std::uint32_t opcode, std::span<const std::uint8_t> body)
{
    request_answer answer = ask_agent(node, opcode, body);
    return answer.answered && answer.status == AGENT_OK ? std::optional(std::move(answer.payload)) : std::nullopt;
}

// For what a worker of the agent does, which takes its time. An agent that hangs is found out by a quick question.
request_answer ask_for_work(std::uint32_t node, std::uint32_t opcode, std::span<const std::uint8_t> body,
                            unsigned wait_limit_s = WORK_WAIT_LIMIT_S)
{
    if (!ask(node, AGENT_OPC_GET_CARD, {}))
        return {};
    const std::int64_t busy_until_us = monotonic_us() + BUSY_PATIENCE_US;
    for (;;) {
        request_answer answer = ask_agent(node, opcode, body, wait_limit_s);
        if (!answer.answered || answer.status != AGENT_ERR_BUSY || monotonic_us() > busy_until_us)
            return answer;
        (void)::usleep(BUSY_PAUSE_US);
    }
}

template<class Record>
std::span<const std::uint8_t> bytes_of(const Record &record)
{
    return {reinterpret_cast<const std::uint8_t *>(&record), sizeof record};
}

template<class Record>
std::optional<bytes> ask(std::uint32_t node, std::uint32_t opcode, const Record &body)
{
    return ask(node, opcode, bytes_of(body));
}

// What all cards know alike is asked of the agent that has answered last, else of the first that answers.
std::optional<bytes> ask_any(std::uint32_t opcode)
{
    static std::optional<std::uint32_t> last_answered;
    if (last_answered) {
        if (auto answer = ask(*last_answered, opcode, {}); answer)
            return answer;
    }
    for (const std::uint32_t node : mts_nodes_with(AGENT_SAP)) {
        auto answer = node != last_answered ? ask(node, opcode, {}) : std::nullopt;
        if (!answer)
            continue;
        last_answered = node;
        return answer;
    }
    last_answered.reset();
    return std::nullopt;
}

// The lock of a module whose card has no agent is asked for at the active supervisor's by whoever programs.
std::optional<request_answer> ask_lock_server(std::uint32_t node, std::uint32_t opcode,
                                              std::span<const std::uint8_t> body)
{
    std::uint32_t server = node;
    if (!mts_is_bound(node, AGENT_SAP)) {
        const auto modules = ask_for_modules().value_or(std::vector<chassis_module>{});
        const auto active =
            std::ranges::find(modules, std::uint32_t{SYSMGR_SUP_STATE_ACTIVE}, &chassis_module::sup_state);
        if (active == modules.end())
            return std::nullopt;
        server = daemon_node(active->slot, true);
    }
    request_answer answer = ask_agent(server, opcode, body);
    return answer.answered ? std::optional(std::move(answer)) : std::nullopt;
}

std::string_view text_of(const bytes &payload)
{
    return {reinterpret_cast<const char *>(payload.data()), payload.size()};
}

} // namespace

request_answer ask_agent(std::uint32_t node, std::uint32_t opcode, std::span<const std::uint8_t> body,
                         unsigned wait_limit_s)
{
    if (!endpoint().bound())
        return {.error = errno};
    request_answer answer{.error = MTS_ERRNO_TIMED_OUT};
    if (is_silent(node))
        return answer;
    for (unsigned attempt = 0; attempt < ATTEMPTS; ++attempt) { // on its way a message may be lost
        answer = endpoint().request_agent(node, opcode, body, wait_limit_s);
        if (answer.answered || answer.error != MTS_ERRNO_TIMED_OUT)
            return answer;
    }
    silent_agents()[node] = monotonic_us() + SILENCE_US;
    return answer;
}

void leave_agents()
{
    holder().bound.reset();
}

std::optional<std::vector<chassis_module>> ask_for_modules()
{
    const auto answer = ask_any(AGENT_OPC_GET_CHASSIS);
    return answer ? decode_modules(*answer) : std::nullopt;
}

std::optional<card_facts_told> ask_for_card(std::uint32_t node)
{
    const auto answer = ask(node, AGENT_OPC_GET_CARD, {});
    return answer ? decode_card(*answer) : std::nullopt;
}

std::optional<told_outcome> ask_for_outcome(std::uint32_t node)
{
    const auto answer = ask(node, AGENT_OPC_GET_OUTCOME, {});
    return answer ? decode_outcome(*answer) : std::nullopt;
}

std::optional<told_head> ask_for_head(std::uint32_t node, unsigned slot, unsigned instance)
{
    const auto answer = ask(node, AGENT_OPC_GET_HEAD, agent_head_req_t{be32::of(slot), be32::of(instance)});
    return answer ? decode_head(*answer) : std::nullopt;
}

request_answer ask_for_versions(std::uint32_t node)
{
    return ask_agent(node, AGENT_OPC_GET_VERSIONS, {});
}

std::optional<std::string> ask_for_version(std::uint32_t node, unsigned instance)
{
    const auto answer = ask(node, AGENT_OPC_GET_VERSION, agent_flash_req_t{be32::of(instance)});
    return answer ? std::optional(printable_text(text_of(*answer))) : std::nullopt;
}

std::optional<std::vector<flash_event>> ask_for_events(std::uint32_t node, unsigned instance,
                                                       std::uint64_t after_sequence)
{
    const auto answer =
        ask(node, AGENT_OPC_GET_EVENTS, agent_events_req_t{be32::of(instance), be64::of(after_sequence)});
    return answer ? std::optional(decode_events(text_of(*answer))) : std::nullopt;
}

std::optional<std::vector<told_log_fault>> ask_for_log_faults(std::uint32_t node, unsigned instance)
{
    const auto answer = ask(node, AGENT_OPC_GET_LOG_FAULTS, agent_flash_req_t{be32::of(instance)});
    return answer ? decode_log_faults(*answer) : std::nullopt;
}

std::optional<flash_event_totals> ask_for_totals(std::uint32_t node, unsigned instance)
{
    const auto answer = ask(node, AGENT_OPC_GET_TOTALS, agent_flash_req_t{be32::of(instance)});
    return answer ? std::optional(flash_event_totals_parse(text_of(*answer))) : std::nullopt;
}

request_answer request_image(std::uint32_t node, const image_question &question, unsigned wait_limit_s)
{
    agent_image_req_t body{};
    body.card_id = be32::of(question.card_id);
    body.source = be32::of(question.place == image_place::tree  ? AGENT_IMAGE_OF_TREE
                           : question.place == image_place::uri ? AGENT_IMAGE_OF_URI
                                                                : AGENT_IMAGE_READY);
    body.with_signature = be32::of(question.with_signature ? 1 : 0);
    store_text(body.uri, question.uri.c_str());
    return ask_for_work(node, AGENT_OPC_GET_IMAGE, bytes_of(body), wait_limit_s);
}

image_reply image_reply_of(const request_answer &answer)
{
    if (!answer.answered || answer.status != AGENT_OK)
        return {.status = answer.status};
    return {.image = decode_image(answer.payload)};
}

image_reply ask_for_image(std::uint32_t node, const image_question &question)
{
    return image_reply_of(request_image(node, question));
}

flash_digest_reply ask_for_digest(std::uint32_t node, unsigned instance, std::uint64_t bytes)
{
    const request_answer answer = ask_for_work(
        node, AGENT_OPC_GET_DIGEST, bytes_of(agent_flash_digest_req_t{be32::of(instance), be64::of(bytes)}));
    if (!answer.answered || answer.status != AGENT_OK)
        return {.status = answer.status};
    return {.digest = decode_flash_digest(answer.payload)};
}

std::optional<std::vector<chassis_module_lock_holder>> ask_for_locks()
{
    std::optional<std::vector<chassis_module_lock_holder>> locks;
    for (const std::uint32_t node : mts_nodes_with(AGENT_SAP)) {
        const auto answer = ask(node, AGENT_OPC_GET_LOCKS, {});
        const auto served = answer ? decode_locks(*answer) : std::nullopt;
        if (!served)
            continue;
        if (!locks)
            locks.emplace();
        locks->insert(locks->end(), served->begin(), served->end());
    }
    if (locks)
        std::ranges::sort(*locks, {}, &chassis_module_lock_holder::node_id);
    return locks;
}

operator_lock_reply ask_for_operator_lock(std::uint32_t node, const lock_operator &who, std::uint32_t seconds)
{
    agent_operator_lock_req_t body{be32::of(node), be32::of(seconds), {}, {}};
    store_text(body.user, who.user.c_str(), sizeof body.user - 1);
    store_text(body.host, who.host.c_str(), sizeof body.host - 1);
    const auto answer = ask_lock_server(node, AGENT_OPC_OPERATOR_LOCK, bytes_of(body));
    if (!answer)
        return {};
    operator_lock_reply reply{.status = answer->status};
    if (const auto locks = decode_locks(answer->payload); locks && locks->size() == 1)
        reply.lock = locks->front();
    return reply;
}

operator_lock_reply ask_for_operator_unlock(std::uint32_t node, const lock_operator &who, bool force)
{
    agent_operator_unlock_req_t body{be32::of(node), be32::of(force ? 1 : 0), {}, {}};
    store_text(body.user, who.user.c_str(), sizeof body.user - 1);
    store_text(body.host, who.host.c_str(), sizeof body.host - 1);
    const auto answer = ask_lock_server(node, AGENT_OPC_OPERATOR_UNLOCK, bytes_of(body));
    return {.status = answer ? std::optional(answer->status) : std::nullopt};
}

std::optional<std::vector<told_result>> ask_for_results()
{
    const auto answer = ask_any(AGENT_OPC_GET_RESULTS);
    return answer ? decode_results(*answer) : std::nullopt;
}
