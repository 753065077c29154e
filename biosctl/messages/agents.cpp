#include "agents.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <span>

#include "agent_messages.h"
#include "client.h"
#include "monotonic_clock.h"
#include "mts_tools.h"
#include "pfm.h"
#include "text_field.h"

namespace
{

using bytes = std::vector<std::uint8_t>;

constexpr std::int64_t SILENCE_US = 10 * MICROSECONDS;
constexpr unsigned ATTEMPTS = 3;

// One endpoint for all that this process asks; made anew when it could not be bound.
client_endpoint &endpoint()
{
    static std::optional<client_endpoint> bound;
    if (!bound || !bound->bound())
        bound.emplace();
    return *bound;
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
    if (!endpoint().bound() || is_silent(node))
        return std::nullopt;
    for (unsigned attempt = 0; attempt < ATTEMPTS; ++attempt) { // on its way a message may be lost
        request_answer answer = endpoint().request_agent(node, opcode, body, AGENT_WAIT_LIMIT_S);
        if (answer.answered)
            return answer.status == AGENT_OK ? std::optional(std::move(answer.payload)) : std::nullopt;
        if (answer.error != MTS_ERRNO_TIMED_OUT)
            return std::nullopt;
    }
    silent_agents()[node] = monotonic_us() + SILENCE_US;
    return std::nullopt;
}

template<class Record>
std::optional<bytes> ask(std::uint32_t node, std::uint32_t opcode, const Record &body)
{
    return ask(node, opcode, {reinterpret_cast<const std::uint8_t *>(&body), sizeof body});
}

// What all cards know alike is asked of the first whose agent answers.
std::optional<bytes> ask_any(std::uint32_t opcode)
{
    for (const std::uint32_t node : mts_nodes_with(AGENT_SAP)) {
        if (auto answer = ask(node, opcode, {}); answer)
            return answer;
    }
    return std::nullopt;
}

// Takes records from the beginning of a payload.
class record_reader
{
public:
    explicit record_reader(std::span<const std::uint8_t> payload) : rest_(payload) {}

    template<class Record>
    bool take(Record &record)
    {
        if (rest_.size() < sizeof record)
            return false;
        std::memcpy(&record, rest_.data(), sizeof record);
        rest_ = rest_.subspan(sizeof record);
        return true;
    }
    bool at_end() const { return rest_.empty(); }

private:
    std::span<const std::uint8_t> rest_;
};

bool is_slot(std::uint32_t number)
{
    return number >= 1 && number <= PFM_MODULE_COUNT;
}

card_flash flash_of(const agent_flash_t &told)
{
    const std::uint32_t state = told.state.load();
    card_flash flash{.instance = told.instance.load(),
                     .size_bytes = told.size_bytes.load(),
                     .sector_bytes = told.sector_bytes.load(),
                     .erases = told.erases.load(),
                     .log = {told.log_file.load(), told.log_bytes.load()}};
    flash.activity.marked = (state & AGENT_FLASH_MARKED) != 0;
    flash.activity.has_writer = (state & AGENT_FLASH_HAS_WRITER) != 0;
    const std::uint32_t phase = told.phase.load();
    if ((state & AGENT_FLASH_HAS_PROGRESS) != 0 && phase >= BIOS_PHASE_ERASE && phase <= BIOS_PHASE_VERIFY)
        flash.activity.last = flash_progress_line{static_cast<bios_programming_phase>(phase),
                                                  std::min<std::uint32_t>(told.percent.load(), 100),
                                                  told.attempt.load(), told.pid.load(), field_text(told.since).text};
    return flash;
}

std::string_view text_of(const bytes &payload)
{
    return {reinterpret_cast<const char *>(payload.data()), payload.size()};
}

} // namespace

std::optional<std::vector<chassis_module>> ask_for_modules()
{
    const auto answer = ask_any(AGENT_OPC_GET_CHASSIS);
    if (!answer)
        return std::nullopt;
    record_reader records(*answer);
    agent_chassis_t head{};
    if (!records.take(head))
        return std::nullopt;
    std::vector<chassis_module> modules;
    for (agent_module_t told{}; records.take(told);) {
        if (is_slot(told.slot.load()))
            modules.push_back({told.slot.load(), told.kind.load(), told.card_id.load(), told.sup_state.load()});
    }
    if (modules.size() != head.count.load())
        return std::nullopt;
    std::ranges::sort(modules, {}, &chassis_module::slot);
    return modules;
}

const card_flash *card_facts_told::flash(unsigned instance) const
{
    const auto found = std::ranges::find(flashes, instance, &card_flash::instance);
    return found != flashes.end() ? &*found : nullptr;
}

std::optional<card_facts_told> ask_for_card(std::uint32_t node)
{
    const auto answer = ask(node, AGENT_OPC_GET_CARD, {});
    if (!answer)
        return std::nullopt;
    record_reader records(*answer);
    agent_card_t head{};
    if (!records.take(head))
        return std::nullopt;
    card_facts_told card{.serves = head.serves.load() != 0};
    for (agent_flash_t told{}; records.take(told);) {
        if (told.instance.load() < FLASH_INSTANCE_COUNT)
            card.flashes.push_back(flash_of(told));
    }
    return card;
}

std::optional<std::string> ask_for_version(std::uint32_t node, unsigned instance)
{
    const auto answer = ask(node, AGENT_OPC_GET_VERSION, agent_flash_req_t{be32::of(instance)});
    return answer ? std::optional(std::string(text_of(*answer))) : std::nullopt;
}

std::optional<std::vector<flash_event>> ask_for_events(std::uint32_t node, unsigned instance,
                                                       std::uint64_t after_sequence)
{
    const auto answer =
        ask(node, AGENT_OPC_GET_EVENTS, agent_events_req_t{be32::of(instance), be64::of(after_sequence)});
    if (!answer)
        return std::nullopt;
    std::vector<flash_event> events;
    std::string_view rest = text_of(*answer);
    for (std::size_t end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
        if (auto event = flash_event_parse(rest.substr(0, end)); event)
            events.push_back(std::move(*event));
        rest.remove_prefix(end + 1);
    }
    return events;
}

std::optional<flash_event_totals> ask_for_totals(std::uint32_t node, unsigned instance)
{
    const auto answer = ask(node, AGENT_OPC_GET_TOTALS, agent_flash_req_t{be32::of(instance)});
    return answer ? std::optional(flash_event_totals_parse(text_of(*answer))) : std::nullopt;
}

std::optional<std::vector<chassis_module_lock_holder>> ask_for_locks()
{
    const auto answer = ask_any(AGENT_OPC_GET_LOCKS);
    if (!answer)
        return std::nullopt;
    record_reader records(*answer);
    std::vector<chassis_module_lock_holder> locks;
    for (agent_lock_t told{}; records.take(told);)
        locks.push_back({static_cast<std::uint16_t>(told.node_id.load()), told.slot.load(), told.pid.load(),
                         told.owner.load(), told.reason.load(), field_text(told.since).text});
    return records.at_end() ? std::optional(locks) : std::nullopt;
}

std::optional<std::vector<told_result>> ask_for_results()
{
    const auto answer = ask_any(AGENT_OPC_GET_RESULTS);
    if (!answer)
        return std::nullopt;
    record_reader records(*answer);
    std::vector<told_result> results;
    for (agent_result_t told{}; records.take(told);) {
        if (is_slot(told.module.load()))
            results.push_back({told.module.load(), told.result.load(), told.reported_by_slot.load(),
                               field_text(told.time).text});
    }
    return results;
}
