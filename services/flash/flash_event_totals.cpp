#include "flash_event_totals.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <sstream>

namespace
{

struct counter_row {
    const char *name;
    std::uint64_t flash_event_totals::*counter;
};
constexpr counter_row COUNTERS[] = {
    {"begun", &flash_event_totals::begun},
    {"attempts", &flash_event_totals::attempts},
    {"verified", &flash_event_totals::verified},
    {"equal", &flash_event_totals::equal},
    {"cut_off", &flash_event_totals::cut_off},
    {"sectors_erased", &flash_event_totals::sectors_erased},
    {"bytes_written", &flash_event_totals::bytes_written},
    {"duration_ms", &flash_event_totals::duration_ms},
    {"lost", &flash_event_totals::lost},
};

struct code_counter_row {
    const char *name;
    flash_event_totals::count_by_code flash_event_totals::*counters;
};
constexpr code_counter_row CODE_COUNTERS[] = {
    {"ended", &flash_event_totals::ended},
    {"failed", &flash_event_totals::failed},
    {"refused", &flash_event_totals::refused},
};

constexpr const char *SEQUENCE = "sequence";
constexpr const char *TOOK = "took";
constexpr const char *BEYOND_ALL = "inf";

std::size_t duration_class(std::uint64_t duration_ms)
{
    return static_cast<std::size_t>(std::ranges::lower_bound(DURATION_LIMITS_MS, duration_ms) -
                                    DURATION_LIMITS_MS.begin());
}

std::string class_name(std::size_t place)
{
    return place < DURATION_LIMITS_MS.size() ? std::to_string(DURATION_LIMITS_MS[place]) : BEYOND_ALL;
}

std::string line_of(const std::string &name, std::uint64_t value)
{
    return value != 0 ? name + " " + std::to_string(value) + "\n" : "";
}

std::string code_text(std::uint32_t code)
{
    char text[16];
    (void)std::snprintf(text, sizeof text, "0x%08" PRIx32, code);
    return text;
}

std::uint64_t *find_counter(flash_event_totals &totals, const std::string &name, const std::string &key)
{
    if (name == SEQUENCE && key.empty())
        return &totals.sequence;
    for (const counter_row &row : COUNTERS) {
        if (name == row.name && key.empty())
            return &(totals.*row.counter);
    }
    for (std::size_t place = 0; name == TOOK && place < totals.took.size(); ++place) {
        if (key == class_name(place))
            return &totals.took[place];
    }
    for (const code_counter_row &row : CODE_COUNTERS) {
        std::uint32_t code = 0;
        if (name != row.name || !key.starts_with("0x"))
            continue;
        const auto [end, failure] = std::from_chars(key.data() + 2, key.data() + key.size(), code, 16);
        return failure == std::errc{} && key == code_text(code) ? &(totals.*row.counters)[code] : nullptr;
    }
    return nullptr;
}

bool take_line(flash_event_totals &totals, const std::string &line)
{
    std::istringstream words(line);
    std::string name, key, number, more;
    words >> name >> key;
    if (!(words >> number)) {
        number = key;
        key.clear();
    }
    std::uint64_t *counter = find_counter(totals, name, key);
    if (counter == nullptr || words >> more)
        return false;
    const auto [end, failure] = std::from_chars(number.data(), number.data() + number.size(), *counter);
    return failure == std::errc{} && end == number.data() + number.size();
}

} // namespace

void flash_event_totals::count(const flash_event &event)
{
    if (event.sequence <= sequence)
        return;
    sequence = event.sequence;
    sectors_erased += event.sectors_erased.value_or(0);
    bytes_written += event.bytes_written.value_or(0);
    const std::uint32_t code = event.result.value_or(0);
    switch (event.kind) {
    case flash_event_kind::begun:
        ++begun;
        break;
    case flash_event_kind::attempt:
        ++attempts;
        break;
    case flash_event_kind::erased:
        break;
    case flash_event_kind::verified:
        ++verified;
        break;
    case flash_event_kind::equal:
        ++equal;
        break;
    case flash_event_kind::failed:
        ++failed[code];
        break;
    case flash_event_kind::refused:
        ++refused[code];
        break;
    case flash_event_kind::ended:
        ++ended[code];
        duration_ms += event.duration_ms.value_or(0);
        ++took[duration_class(event.duration_ms.value_or(0))];
        break;
    case flash_event_kind::cut_off:
        ++cut_off;
        break;
    case flash_event_kind::lost:
        lost += event.lost.value_or(0);
        break;
    }
}

void flash_event_totals::count_all(std::span<const flash_event> events)
{
    for (const flash_event &event : events)
        count(event);
}

std::string flash_event_totals_format(const flash_event_totals &totals)
{
    std::string content = line_of(SEQUENCE, totals.sequence);
    for (const counter_row &row : COUNTERS)
        content += line_of(row.name, totals.*row.counter);
    for (std::size_t place = 0; place < totals.took.size(); ++place)
        content += line_of(TOOK + (" " + class_name(place)), totals.took[place]);
    for (const code_counter_row &row : CODE_COUNTERS) {
        for (const auto &[code, count] : totals.*row.counters)
            content += line_of(row.name + (" " + code_text(code)), count);
    }
    return content;
}

flash_event_totals flash_event_totals_parse(std::string_view content)
{
    flash_event_totals totals;
    std::istringstream lines{std::string(content)};
    for (std::string line; std::getline(lines, line);) {
        if (!take_line(totals, line))
            return {};
    }
    return totals.sequence <= FLASH_EVENT_SEQUENCE_MAX ? totals : flash_event_totals{};
}
