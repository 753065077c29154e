#include "message_faults.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>

#include "chassis_dir.h"
#include "line_file.h"
#include "monotonic_clock.h"
#include "seeded_chance.h"
#include "watched_file.h"

namespace
{

constexpr const char *RULES_FILE = "transport/faults";
constexpr const char *RECORD_FILE = "transport/faulted";
constexpr std::string_view FAULT_NAMES[] = {"none", "lose", "double", "delay", "truncate"};
constexpr const char *KIND_NAMES[] = {"none", "message", "request", "answer", "rejection"};

constexpr double LEAST_PERCENT = 0.001;
constexpr double MOST_PERCENT = 100;
constexpr std::uint32_t DELAY_MS = 1000;
constexpr std::uint32_t LONGEST_DELAY_MS = 60'000;
constexpr std::int64_t MICROSECONDS_PER_MS = 1000;
constexpr std::size_t LATE_MESSAGES_LIMIT = 1024;
constexpr std::uint64_t LATE_BYTES_LIMIT = 2ull * MTS_MAX_PAYLOAD_BYTES;

struct fault_rule {
    message_fault fault;
    double share;
    std::uint64_t seed;
    std::uint32_t longest_ms;
};

// Kept from message to message. Empty when there are none.
const std::string &current_rules()
{
    static watched_file file(RULES_FILE);
    static std::string rules;
    if (file.may_have_changed() && !chassis_read_file(file.path(), rules))
        rules.clear();
    return rules;
}

std::string_view take_word(std::string_view &line)
{
    constexpr std::string_view BLANKS = " \t\r";
    line.remove_prefix(std::min(line.find_first_not_of(BLANKS), line.size()));
    const std::string_view word = line.substr(0, line.find_first_of(BLANKS));
    line.remove_prefix(word.size());
    return word;
}

template<class number>
bool parse_whole(std::string_view word, number &value)
{
    const auto [end, failure] = std::from_chars(word.data(), word.data() + word.size(), value);
    return failure == std::errc() && end == word.data() + word.size();
}

message_fault fault_named(std::string_view name)
{
    for (std::size_t index = 1; index < std::size(FAULT_NAMES); ++index) {
        if (FAULT_NAMES[index] == name)
            return static_cast<message_fault>(index);
    }
    return message_fault::none;
}

std::optional<fault_rule> parse_rule(std::string_view line)
{
    fault_rule rule{fault_named(take_word(line)), 0, 0, DELAY_MS};
    std::string_view percent_text = take_word(line);
    double percent = 0;
    if (rule.fault == message_fault::none || !percent_text.ends_with('%'))
        return std::nullopt;
    percent_text.remove_suffix(1);
    if (!parse_whole(percent_text, percent) || !(percent >= LEAST_PERCENT && percent <= MOST_PERCENT) ||
        !parse_whole(take_word(line), rule.seed))
        return std::nullopt;
    rule.share = percent / MOST_PERCENT;
    if (const std::string_view longest = take_word(line); !longest.empty()) {
        if (rule.fault != message_fault::delay || !parse_whole(longest, rule.longest_ms) || rule.longest_ms == 0 ||
            rule.longest_ms > LONGEST_DELAY_MS)
            return std::nullopt;
    }
    return take_word(line).empty() ? std::optional(rule) : std::nullopt;
}

// Rules of one seed and one endpoint's neighbours draw independently of each other.
std::uint64_t drawn_number(const fault_rule &rule, mts_address_t receiver, std::uint64_t arrival)
{
    std::uint64_t number = rule.seed;
    for (const std::uint64_t part :
         {static_cast<std::uint64_t>(rule.fault), std::uint64_t{receiver.node} << 32 | receiver.sap, arrival})
        number = spread_number(number ^ part);
    return number;
}

mts_held_message copy_of(const mts_message &message, std::uint32_t payload_bytes)
{
    mts_frame_header header = message.header;
    header.payload_bytes = payload_bytes;
    mts_held_message copy = mts_message_for(header);
    if (copy) {
        std::memcpy(copy->payload, message.payload, payload_bytes);
        copy->came_us = message.came_us;
    }
    return copy;
}

void record(const mts_message &message, mts_address_t receiver, const message_fault_order &order)
{
    char extent[48] = "";
    if (order.fault == message_fault::delay)
        (void)std::snprintf(extent, sizeof extent, ", %u ms late", order.delay_ms);
    if (order.fault == message_fault::truncate)
        (void)std::snprintf(extent, sizeof extent, ", %u left", order.bytes_left);
    char line[192];
    (void)std::snprintf(line, sizeof line, "%08x.%08x %s %s %u, %u bytes%s", receiver.node, receiver.sap,
                        FAULT_NAMES[static_cast<std::size_t>(order.fault)].data(),
                        KIND_NAMES[static_cast<std::size_t>(message.header.kind)], message.header.opcode,
                        message.header.payload_bytes, extent);
    (void)append_line(RECORD_FILE, line); // diagnostics: the fault happens all the same
}

} // namespace

message_fault_order message_fault_drawn(std::string_view rules, mts_address_t receiver, std::uint64_t arrival,
                                        std::uint32_t payload_bytes)
{
    while (!rules.empty()) {
        const std::string_view line = rules.substr(0, rules.find('\n'));
        rules.remove_prefix(std::min(line.size() + 1, rules.size()));
        const auto rule = parse_rule(line);
        if (!rule || (rule->fault == message_fault::truncate && payload_bytes == 0))
            continue;
        const std::uint64_t number = drawn_number(*rule, receiver, arrival);
        if (!chance_happens(number, rule->share))
            continue;
        const std::uint64_t extent = spread_number(number);
        message_fault_order order{.fault = rule->fault};
        if (rule->fault == message_fault::delay)
            order.delay_ms = static_cast<std::uint32_t>(extent % rule->longest_ms) + 1;
        if (rule->fault == message_fault::truncate)
            order.bytes_left = static_cast<std::uint32_t>(extent % payload_bytes);
        return order;
    }
    return {};
}

mts_held_message late_messages::add(mts_held_message message, std::int64_t due)
{
    const std::uint32_t bytes = message->header.payload_bytes;
    if (messages_.size() >= LATE_MESSAGES_LIMIT || bytes_ + bytes > LATE_BYTES_LIMIT)
        return message;
    const auto place = std::find_if(messages_.begin(), messages_.end(),
                                    [due](const late_message &other) { return other.due > due; });
    messages_.insert(place, late_message{due, std::move(message)});
    bytes_ += bytes;
    return nullptr;
}

mts_held_message late_messages::take_due(std::int64_t now)
{
    if (messages_.empty() || messages_.front().due > now)
        return nullptr;
    mts_held_message message = std::move(messages_.front().message);
    messages_.pop_front();
    bytes_ -= message->header.payload_bytes;
    return message;
}

std::int64_t late_messages::next_due(std::int64_t deadline) const
{
    return messages_.empty() ? deadline : std::min(deadline, messages_.front().due);
}

mts_held_message message_faults_pass(mts_held_message message, mts_address_t receiver, std::uint64_t arrival,
                                     late_messages &late)
{
    const std::string &rules = current_rules();
    if (rules.empty())
        return message;
    const message_fault_order order = message_fault_drawn(rules, receiver, arrival, message->header.payload_bytes);
    if (order.fault == message_fault::none)
        return message;
    record(*message, receiver, order);
    switch (order.fault) {
    case message_fault::lose:
        return nullptr;
    case message_fault::twice:
        if (auto copy = copy_of(*message, message->header.payload_bytes))
            (void)late.add(std::move(copy), monotonic_us());
        return message;
    case message_fault::delay:
        return late.add(std::move(message), monotonic_us() + order.delay_ms * MICROSECONDS_PER_MS);
    case message_fault::truncate:
        return copy_of(*message, order.bytes_left); // in a block of its own, so that a read beyond it is noticed
    default:
        return message;
    }
}
