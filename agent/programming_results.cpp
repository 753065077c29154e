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
// find it out by itself.
constexpr std::int64_t REPORT_S = COMPLETION_PATIENCE_US / MICROSECONDS + 10;

const results_by_module &told_results()
{
    static kept_notice_reader notices;
    static results_by_module results;
    for (const kept_notice &notice : notices.take())
        take_result(results, notice);
    return results;
}

std::string_view milliseconds(const std::string &time)
{
    return std::string_view(time).substr(0, MILLISECONDS_TEXT_BYTES);
}

// Whether the last event of a flash until an end was told is that end, and a good one. Another programming that has
// begun behind it, and is not known to have ended, may be the one that was told of.
bool is_end_of(const told_end &end, const flash_event &event)
{
    if (event.kind != flash_event_kind::ended || event.result != 0U ||
        milliseconds(event.time) <= milliseconds(end.before))
        return false;
    const auto ended_s = utc_parse_seconds(event.time);
    const auto told_s = utc_parse_seconds(end.time);
    return ended_s && told_s && *told_s - *ended_s <= REPORT_S;
}

// Of one flash. A programming that was asked for directly is not told.
bool is_verified(const told_end &end, std::span<const flash_event> events)
{
    const auto is_earlier = [&end](const flash_event &event) {
        return milliseconds(event.time) <= milliseconds(end.time);
    };
    const auto last = std::find_if(events.rbegin(), events.rend(), is_earlier);
    return last != events.rend() && is_end_of(end, *last);
}

} // namespace

void take_result(results_by_module &results, const kept_notice &notice)
{
    bios_programming_notify_t told{};
    if (notice.opcode != MTS_OPC_BIOS_PROGRAMMING_NOTIFY || notice.source.sap != BIOS_DAEMON_SAP ||
        notice.payload.size() < sizeof told)
        return;
    std::memcpy(&told, notice.payload.data(), sizeof told);
    const unsigned module = told.programming_mod_num.load();
    if (module == 0 || module > PFM_MODULE_COUNT)
        return;
    told_end &end = results[module];
    end.before = end.time;
    end.time = notice.time;
    agent_result_t &result = end.result;
    result = {be32::of(module), be32::of(told.result.load()), be32::of(module_of_node(notice.source.node)), {}};
    const std::string time = notice.time.substr(0, SECONDS_TEXT_BYTES) + "Z";
    store_text(result.time, time.c_str(), time.size());
}

agent_outcome outcome_of(const told_end &end, std::span<const std::vector<flash_event>> flashes)
{
    if (end.time.empty())
        return AGENT_OUTCOME_NONE;
    if (end.result.result.load() != 0)
        return AGENT_OUTCOME_FAILED;
    const bool verified =
        std::ranges::any_of(flashes, [&end](const auto &events) { return is_verified(end, events); });
    return verified ? AGENT_OUTCOME_VERIFIED : AGENT_OUTCOME_WITHOUT_RESULT;
}

answer results_answer()
{
    answer all;
    for (const auto &[module, end] : told_results())
        all.add(end.result);
    return all;
}

answer outcome_answer()
{
    const unsigned slot = chassis_own_slot();
    const auto found = told_results().find(slot);
    const told_end end = found != told_results().end() ? found->second : told_end{};
    std::vector<std::vector<flash_event>> flashes;
    for (unsigned instance = 0; instance < FLASH_INSTANCE_COUNT; ++instance)
        flashes.push_back(flash_event_history_of(slot, instance).events);
    answer told;
    told.add(agent_outcome_t{be32::of(outcome_of(end, flashes)), end.result});
    return told;
}
