#include "programming_results.h"

#include <algorithm>
#include <cstring>

#include "awaited_completion.h"
#include "bios_messages.h"
#include "bios_opcodes.h"
#include "chassis_dir.h"
#include "daemon_node.h"
#include "flash_event_log.h"
#include "flash_geometry.h"
#include "pfm.h"
#include "utc_time.h"

namespace
{

constexpr std::size_t SECONDS_TEXT_BYTES = 19;      // "2026-01-31T23:59:59"
constexpr std::size_t MILLISECONDS_TEXT_BYTES = 23; // "2026-01-31T23:59:59.123"
// The end of the work on a flash is reported sooner, also when the module's daemon hangs and the supervisor has to
// find it out by itself. How long a supervisor that hangs takes to tell it to others does not matter.
constexpr std::int64_t REPORT_S = COMPLETION_PATIENCE_US / MICROSECONDS + 10;

const told_ends &ends_so_far()
{
    static kept_notice_reader notices;
    static told_ends ends;
    for (const kept_notice &notice : notices.take())
        take_end(ends, notice);
    return ends;
}

std::string_view milliseconds(const std::string &time)
{
    return std::string_view(time).substr(0, MILLISECONDS_TEXT_BYTES);
}

std::string seconds_of(const std::string &time)
{
    return time.substr(0, SECONDS_TEXT_BYTES) + "Z";
}

bool is_module(unsigned module)
{
    return module != 0 && module <= PFM_MODULE_COUNT;
}

// The end of a flash's programming that was told of at a time: the last event of the flash until then. Another
// programming that has begun behind it, and is not known to have ended, may be the one that was told of. A
// programming that was asked for directly is not told.
const flash_event *end_told_at(const std::string &told, const std::string &before,
                               std::span<const flash_event> events)
{
    const auto is_earlier = [&told](const flash_event &event) {
        return milliseconds(event.time) <= milliseconds(told);
    };
    const auto last = std::find_if(events.rbegin(), events.rend(), is_earlier);
    if (last == events.rend() || last->kind != flash_event_kind::ended ||
        milliseconds(last->time) <= milliseconds(before))
        return nullptr;
    const auto ended_s = utc_parse_seconds(last->time);
    const auto told_s = utc_parse_seconds(told);
    return ended_s && told_s && *told_s - *ended_s <= REPORT_S ? &*last : nullptr;
}

const flash_event *end_on(const told_end &end, std::span<const flash_event> events)
{
    const flash_event *ended = end_told_at(end.time, end.before, events);
    return ended != nullptr ? ended : end_told_at(end.reported, end.before, events);
}

} // namespace

void take_end(told_ends &ends, const kept_notice &notice)
{
    if (notice.source.sap != BIOS_DAEMON_SAP)
        return;
    const unsigned sender = module_of_node(notice.source.node);
    if (notice.opcode == MTS_OPC_BIOS_PROGRAMMING_DONE && is_module(sender))
        ends.reported[sender] = notice.time;
    bios_programming_notify_t told{};
    if (notice.opcode != MTS_OPC_BIOS_PROGRAMMING_NOTIFY || notice.payload.size() < sizeof told)
        return;
    std::memcpy(&told, notice.payload.data(), sizeof told);
    const unsigned module = told.programming_mod_num.load();
    if (!is_module(module))
        return;
    told_end &end = ends.by_module[module];
    end.before = end.time;
    end.time = notice.time;
    end.reported = ends.reported[module];
    ends.reported.erase(module);
    agent_result_t &result = end.result;
    result = {be32::of(module), be32::of(told.result.load()), be32::of(sender), {}};
    const std::string time = seconds_of(notice.time);
    store_text(result.time, time.c_str(), time.size());
}

agent_outcome outcome_of(const told_end &end, std::span<const std::vector<flash_event>> flashes)
{
    if (end.time.empty())
        return AGENT_OUTCOME_NONE;
    if (end.result.result.load() != 0)
        return AGENT_OUTCOME_FAILED;
    const bool verified = std::ranges::any_of(flashes, [&end](const std::vector<flash_event> &events) {
        const flash_event *ended = end_on(end, events);
        return ended != nullptr && ended->result == 0U;
    });
    return verified ? AGENT_OUTCOME_VERIFIED : AGENT_OUTCOME_WITHOUT_RESULT;
}

std::string flash_end_of(const told_end &end, std::span<const std::vector<flash_event>> flashes)
{
    std::string latest;
    for (const std::vector<flash_event> &events : flashes) {
        if (const flash_event *ended = end_on(end, events); ended != nullptr)
            latest = std::max(latest, seconds_of(ended->time));
    }
    return latest;
}

answer results_answer()
{
    answer all;
    for (const auto &[module, end] : ends_so_far().by_module)
        all.add(end.result);
    return all;
}

answer outcome_answer()
{
    const unsigned slot = chassis_own_slot();
    const auto &ends = ends_so_far().by_module;
    const auto found = ends.find(slot);
    const told_end end = found != ends.end() ? found->second : told_end{};
    std::vector<std::vector<flash_event>> flashes;
    for (unsigned instance = 0; instance < FLASH_INSTANCE_COUNT; ++instance)
        flashes.push_back(flash_event_history_of(slot, instance).events);
    agent_outcome_t outcome{be32::of(outcome_of(end, flashes)), end.result, {}};
    store_text(outcome.ended, flash_end_of(end, flashes).c_str());
    answer told;
    told.add(outcome);
    return told;
}
