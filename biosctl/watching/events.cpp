#include "events.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <map>
#include <unistd.h>

#include "agents.h"
#include "client.h"
#include "event_log_check.h"
#include "events_report.h"
#include "followed_output.h"
#include "interrupt.h"
#include "inventory.h"
#include "serving_slot.h"
#include "text_report.h"

namespace
{

constexpr auto LOOK_INTERVAL = std::chrono::milliseconds(500);

// Reads the logs of all flashes, and what is new in them from then on.
class events_reader
{
public:
    explicit events_reader(std::vector<unsigned> modules) : modules_(std::move(modules)) {}

    std::vector<flash_event> take()
    {
        std::vector<std::vector<flash_event>> logs;
        if (known_modules_.empty())
            known_modules_ = ask_for_modules().value_or(std::vector<chassis_module>());
        unread_.clear();
        for (const unsigned slot : modules_.empty() ? modules_of_chassis() : modules_)
            take_of(slot, logs);
        return in_order(logs);
    }

    // Of the logs as they were when they were read for the first time.
    const std::vector<event_log_fault> &faults() const { return faults_; }
    // Cards whose logs were not read by the last take().
    const std::vector<unsigned> &unread() const { return unread_; }

private:
    struct read_log {
        std::optional<flash_event_log_state> state = {}; // none: not looked at yet
        std::uint64_t sequence = 0;
    };

    void take_of(unsigned slot, std::vector<std::vector<flash_event>> &logs)
    {
        const std::uint32_t node = node_of_module(slot);
        const auto card = ask_for_card(node);
        if (!card) {
            unread_.push_back(slot); // what has happened to its flashes is told when it answers again
            return;
        }
        for (const card_flash &flash : card->flashes) {
            read_log &known = logs_[{slot, flash.instance}];
            if (flash.log == known.state)
                continue;
            const bool is_first = !known.state.has_value();
            const auto head = is_first ? ask_for_head(slot, flash.instance, known_modules_) : std::nullopt;
            auto events = ask_for_events(node, flash.instance, known.sequence);
            if (!events)
                continue;
            if (is_first)
                note_faults(slot, flash.instance, *events, head);
            known.state = flash.log; // as it was before: what has come meanwhile is asked for again
            if (!events->empty())
                known.sequence = events->back().sequence;
            logs.push_back(std::move(*events));
        }
    }

    void note_faults(unsigned slot, unsigned instance, const std::vector<flash_event> &events,
                     const std::optional<known_head> &head)
    {
        const auto told = ask_for_log_faults(node_of_module(slot), instance);
        for (const std::string &fault :
             event_log_faults(events, head, told.value_or(std::vector<told_log_fault>())))
            faults_.push_back({slot, instance, fault});
    }

    std::vector<unsigned> modules_;
    std::vector<chassis_module> known_modules_;
    std::map<std::pair<unsigned, unsigned>, read_log> logs_;
    std::vector<event_log_fault> faults_;
    std::vector<unsigned> unread_;
};

std::string json_lines(const std::vector<event_log_fault> &faults, const std::vector<unsigned> &unread)
{
    std::string lines;
    for (const event_log_fault &fault : faults)
        lines += fault_json(fault).dump() + "\n";
    for (const unsigned slot : unread)
        lines += unread_json(slot).dump() + "\n";
    return lines;
}

std::string json_lines(const std::vector<flash_event> &events)
{
    std::string lines;
    for (const flash_event &event : events)
        lines += event_json(event).dump() + "\n";
    return lines;
}

// With the heading when the table is new.
std::string table_lines(table &shown, const std::vector<flash_event> &events)
{
    for (const flash_event &event : events)
        add_event(shown, event);
    std::string lines = text_of({shown}, style_of(STDOUT_FILENO));
    shown.go_on();
    return lines;
}

void keep_last(std::vector<flash_event> &events, std::size_t count)
{
    if (events.size() > count)
        events.erase(events.begin(), events.end() - static_cast<std::ptrdiff_t>(count));
}

// Of the cards that were not read: those that were asked for, and those that have something to tell. A card on
// which nothing serves may be one that never has an agent.
std::vector<unsigned> missed(const events_options &options, std::vector<unsigned> unread)
{
    if (options.modules.empty())
        std::erase_if(unread, [](unsigned slot) { return !daemon_serves(node_of_module(slot)); });
    return unread;
}

outcome report_none(bool all_were_read)
{
    return {.headline = all_were_read ? "no events: no flash was programmed yet"
                                      : "no events of the cards whose agents answer"};
}

outcome print_events(const events_options &options, bool json)
{
    events_reader reader(options.modules);
    std::vector<flash_event> events = reader.take();
    const std::vector<event_log_fault> faults = reader.faults();
    const std::vector<unsigned> unread = missed(options, reader.unread());
    const bool is_whole = faults.empty() && unread.empty();
    const bool has_none = events.empty() && is_whole;
    keep_last(events, options.last.value_or(~0U));
    if (!json && has_none && !options.follow)
        return report_none(reader.unread().empty());
    table shown = events_table();
    if (json && !put_text(STDOUT_FILENO, json_lines(faults, unread)))
        return output_not_written(errno);
    for (;;) {
        if (!put_text(STDOUT_FILENO, json ? json_lines(events) : table_lines(shown, events)))
            return output_not_written(errno);
        if (!options.follow || !wait_before_next(STDOUT_FILENO, LOOK_INTERVAL) || interrupted())
            return is_whole ? outcome() : report_faults(faults, unread);
        if (!chassis_is_there())
            return chassis_gone();
        events = reader.take();
    }
}

} // namespace

outcome run_events(const events_options &options, bool json)
{
    events_options in_order_of_slots = options;
    if (!options.modules.empty())
        in_order_of_slots.modules = modules_named(options.modules);
    const auto missing = std::ranges::find_if_not(in_order_of_slots.modules, module_exists);
    if (missing != in_order_of_slots.modules.end())
        return no_module_failure(*missing);
    catch_interrupt();
    (void)std::signal(SIGPIPE, SIG_IGN); // a reader that has gone is no failure
    return print_events(in_order_of_slots, json);
}
