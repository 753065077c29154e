#include "event_log_check.h"

#include <algorithm>

#include "agents.h"
#include "daemon_node.h"
#include "flash_event_chain.h"
#include "flash_event_log.h"

namespace
{

std::string lines_text(std::uint64_t count)
{
    return std::to_string(count) + (count == 1 ? " line" : " lines");
}

std::string missing_text(std::uint64_t count, std::uint64_t sequence)
{
    return lines_text(count) + " before line " + std::to_string(sequence) + (count == 1 ? " is" : " are") +
           " missing";
}

std::string text_of(const chain_break &fault)
{
    return fault.fault == chain_fault::missing ? missing_text(fault.lines, fault.sequence)
                                               : "line " + std::to_string(fault.sequence) + " was changed";
}

bool has_chain(std::span<const flash_event> events)
{
    return std::ranges::any_of(events, [](const flash_event &event) { return !event.chain.empty(); });
}

// The first lines of a log are turned over only when it is full.
bool may_be_turned_over(std::span<const flash_event> events)
{
    std::uint64_t bytes = 0;
    for (const flash_event &event : events)
        bytes += flash_event_format(event).size();
    return bytes + FLASH_EVENT_LINE_BYTES_MAX >= FLASH_EVENT_LOG_BYTES_MAX;
}

std::string end_fault(std::span<const flash_event> events, const known_head &head)
{
    const std::uint64_t last = events.empty() ? 0 : events.back().sequence;
    const std::string by = " (the agent of slot " + std::to_string(head.told_by_slot) + " knows line " +
                           std::to_string(head.sequence) + ")";
    if (head.sequence > last)
        return lines_text(head.sequence - last) + " at the end" + (head.sequence - last == 1 ? " is" : " are") +
               " missing" + by;
    const auto same = std::ranges::find(events, head.sequence, &flash_event::sequence);
    return same != events.end() && same->chain != head.chain ? "it was written anew" + by : "";
}

} // namespace

std::vector<std::string> event_log_faults(std::span<const flash_event> events,
                                          const std::optional<known_head> &head)
{
    std::vector<std::string> faults;
    if (has_chain(events) && events.front().sequence > 1 && !may_be_turned_over(events))
        faults.push_back(missing_text(events.front().sequence - 1, events.front().sequence));
    for (const chain_break &fault : flash_event_chain_breaks(events))
        faults.push_back(text_of(fault));
    if (const std::string fault = head ? end_fault(events, *head) : ""; !fault.empty())
        faults.push_back(fault);
    return faults;
}

std::optional<known_head> ask_for_head(unsigned slot, unsigned instance, std::span<const chassis_module> modules)
{
    std::optional<known_head> highest;
    for (const chassis_module &module : modules) {
        if (module.slot == slot || !is_supervisor_kind(module.kind))
            continue;
        const auto told = ask_for_head(daemon_node(module.slot, true), slot, instance);
        if (told && (!highest || told->sequence > highest->sequence))
            highest = known_head{module.slot, told->sequence, told->chain};
    }
    return highest;
}
