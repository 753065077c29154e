#include "events_report.h"

#include <algorithm>
#include <cstdio>

#include "place_hints.h"
#include "progress_bar.h"
#include "result_text.h"
#include "size_text.h"

namespace
{

constexpr std::size_t SECONDS_TEXT_BYTES = 19;               // "2026-01-31T23:59:59"
constexpr std::size_t TIME_COLUMNS = SECONDS_TEXT_BYTES + 1; // with its "Z"
constexpr std::size_t FLASH_COLUMNS = 7;                     // "primary"
constexpr std::size_t EVENT_COLUMNS = 9;                     // "attempt 1"
constexpr std::size_t TOOK_COLUMNS = 5;                      // "59:59"
constexpr std::size_t DIGEST_DIGITS_SHOWN = 16;
constexpr std::uint64_t SECOND_MS = 1000;

std::string duration_text(std::uint64_t duration_ms)
{
    if (duration_ms >= 60 * SECOND_MS)
        return elapsed_text(static_cast<unsigned>(duration_ms / SECOND_MS));
    const double seconds = static_cast<double>(duration_ms) / SECOND_MS;
    char text[16];
    (void)std::snprintf(text, sizeof text, "%.*fs", duration_ms < 10 * SECOND_MS ? 2 : 1, seconds);
    return text;
}

std::string event_text(const flash_event &event)
{
    if (event.kind == flash_event_kind::cut_off)
        return "cut off";
    if (event.kind == flash_event_kind::attempt)
        return "attempt " + std::to_string(event.attempt.value_or(0));
    return flash_event_name(event.kind);
}

std::string image_text(const flash_event &event)
{
    if (!event.image_bytes)
        return {};
    std::string text = size_text(*event.image_bytes) + (event.version.empty() ? "" : " " + event.version);
    if (!event.old_version.empty())
        text += " over " + event.old_version;
    if (!event.user.empty() || !event.host.empty())
        text += ", by " + event.user + (event.host.empty() ? "" : "@" + event.host);
    if (!event.sha256.empty())
        text += ", SHA-256 " + event.sha256.substr(0, DIGEST_DIGITS_SHOWN);
    return text;
}

constexpr const char *NO_AGENT = "its agent does not answer";

std::string fault_text(const event_log_fault &fault)
{
    return slot_text(fault.slot) + ", " + flash_instance_name(fault.instance) + " flash: " + fault.text;
}

table_cell result_cell(const flash_event &event)
{
    const std::uint32_t code = event.result.value_or(0);
    return {code_text(code) + " " + describe_result(code).name,
            find_result(code) != nullptr ? text_meaning::none : text_meaning::wrong};
}

table_cell what_came_of_it(const flash_event &event)
{
    switch (event.kind) {
    case flash_event_kind::begun:
        return image_text(event);
    case flash_event_kind::attempt:
        return "";
    case flash_event_kind::erased:
        return std::to_string(event.sectors_erased.value_or(0)) + " erased";
    case flash_event_kind::verified:
        return std::to_string(event.sectors_erased.value_or(0)) + " erased, " +
               size_text(event.bytes_written.value_or(0)) + " written";
    case flash_event_kind::equal:
        return "nothing to be changed";
    case flash_event_kind::lost:
        return {std::to_string(event.lost.value_or(0)) + " events could not be written: " + event.reason,
                text_meaning::wrong};
    case flash_event_kind::cut_off:
        return {"marked: not verified", text_meaning::wrong};
    case flash_event_kind::failed:
    case flash_event_kind::refused:
    case flash_event_kind::ended:
        break;
    }
    return result_cell(event);
}

} // namespace

std::vector<flash_event> in_order(const std::vector<std::vector<flash_event>> &logs)
{
    struct placed_event {
        std::string not_before; // the latest time of the flash so far
        const flash_event *event;
    };
    std::vector<placed_event> placed;
    for (const std::vector<flash_event> &log : logs) {
        std::string latest;
        for (const flash_event &event : log) {
            latest = std::max(latest, event.time);
            placed.push_back({latest, &event});
        }
    }
    std::ranges::stable_sort(placed, {}, &placed_event::not_before);
    std::vector<flash_event> events;
    for (const placed_event &one : placed)
        events.push_back(*one.event);
    return events;
}

table events_table()
{
    return table({{"TIME", TIME_COLUMNS},
                  {"SLOT"},
                  {"FLASH", FLASH_COLUMNS},
                  {"EVENT", EVENT_COLUMNS},
                  {"TOOK", TOOK_COLUMNS},
                  {"RESULT"}});
}

void add_event(table &events, const flash_event &event)
{
    events.add({event.time.substr(0, SECONDS_TEXT_BYTES) + "Z", std::to_string(event.slot),
                flash_instance_name(event.instance), event_text(event),
                event.duration_ms ? duration_text(*event.duration_ms) : "", what_came_of_it(event)});
}

nlohmann::ordered_json fault_json(const event_log_fault &fault)
{
    return {{"slot", fault.slot}, {"flash", flash_instance_name(fault.instance)}, {"fault", fault.text}};
}

nlohmann::ordered_json unread_json(unsigned slot)
{
    return {{"slot", slot}, {"fault", NO_AGENT}};
}

outcome report_faults(const std::vector<event_log_fault> &faults, const std::vector<unsigned> &unread)
{
    outcome told = faults.empty()
                       ? failure(EXIT_FAILED, styled_text("not every card's events are shown", text_meaning::wrong),
                                 no_agent_hint())
                       : failure(EXIT_FAILED, styled_text("the event log is not whole", text_meaning::wrong),
                                 "find out who can write to the card's files and whether its disk is full; what is "
                                 "missing is not known");
    std::vector<hint> hints;
    for (const event_log_fault &fault : faults)
        hints.push_back({"log", fault_text(fault)});
    for (const unsigned slot : unread)
        hints.push_back({"log", slot_text(slot) + ": " + NO_AGENT});
    told.hints.insert(told.hints.begin(), hints.begin(), hints.end());
    return told;
}

nlohmann::ordered_json event_json(const flash_event &event)
{
    auto json = nlohmann::ordered_json::parse(flash_event_format(event));
    if (event.result)
        json["name"] = describe_result(*event.result).name;
    return json;
}
