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

std::string place_text(const told_log_fault &fault)
{
    return "line " + std::to_string(fault.line) + (fault.in_older ? " of the older file" : " of the file");
}

// "event 12 (line 9 of the file) is there twice"; of several "3 events are there twice, first event 12 (line ...)"
std::string events_text(const told_log_fault &fault, const char *one, const char *many)
{
    const std::string first = "event " + std::to_string(fault.sequence) + " (" + place_text(fault) + ")";
    if (fault.count == 1)
        return first + " " + one;
    return std::to_string(fault.count) + " events " + many + ", the first is " + first;
}

std::string text_of(const told_log_fault &fault)
{
    switch (fault.fault) {
    case AGENT_LOG_NO_EVENT:
        return fault.count == 1 ? place_text(fault) + " is no event"
                                : lines_text(fault.count) + " are no events, the first is " + place_text(fault);
    case AGENT_LOG_OTHER_FLASH:
        return events_text(fault, "is of another flash", "are of another flash");
    case AGENT_LOG_TWICE:
        return events_text(fault, "is there twice", "are there twice");
    case AGENT_LOG_OUT_OF_ORDER:
        return events_text(fault, "is not in its place", "are not in their places");
    case AGENT_LOG_UNFINISHED:
        return place_text(fault) + ", the last one, is not whole";
    case AGENT_LOG_LOST:
    case AGENT_LOG_LOST_FULL:
        break;
    }
    return std::to_string(fault.count) + (fault.count == 1 ? " event" : " events") + " behind event " +
           std::to_string(fault.sequence) + " could not be written" +
           (fault.fault == AGENT_LOG_LOST_FULL ? ": the card's disk was full" : "");
}

} // namespace

std::vector<std::string> event_log_faults(std::span<const flash_event> events,
                                          const std::optional<known_head> &head,
                                          std::span<const told_log_fault> told)
{
    std::vector<std::string> faults;
    if (has_chain(events) && events.front().sequence > 1 && !may_be_turned_over(events))
        faults.push_back(missing_text(events.front().sequence - 1, events.front().sequence));
    for (const chain_break &fault : flash_event_chain_breaks(events))
        faults.push_back(text_of(fault));
    if (const std::string fault = head ? end_fault(events, *head) : ""; !fault.empty())
        faults.push_back(fault);
    for (const told_log_fault &fault : told)
        faults.push_back(text_of(fault));
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
