// What a flash's events add up to since the log was begun. Once the log is turned over its events go into the file
// `event_totals`, beside it:
//
//   sequence 5120        the last event that the totals count; later ones are still in the log
//   begun 640            ... each counter that is not 0, a line each
//   ended 0x40710021 3   counters by result code
//   duration_ms 120034   time of all programmings that have ended, and how many took how long at most:
//   took 30000 12        by the upper end in ms of DURATION_LIMITS_MS, not summed up; "took inf" for the rest
//
// The totals at any time are those of the file and the events of the log behind its sequence: each event counts
// once wherever a writer was cut off.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "flash_event.h"

// From a flash that was equal already to the largest part erased and written in real time, with its attempts.
constexpr std::array<std::uint64_t, 9> DURATION_LIMITS_MS{1'000,   5'000,   10'000,  30'000,   60'000,
                                                          120'000, 300'000, 600'000, 1'800'000};

struct flash_event_totals {
    using count_by_code = std::map<std::uint32_t, std::uint64_t>;

    std::uint64_t sequence = 0;
    std::uint64_t begun = 0;
    std::uint64_t attempts = 0;
    std::uint64_t verified = 0;
    std::uint64_t equal = 0;
    std::uint64_t cut_off = 0;
    std::uint64_t sectors_erased = 0;
    std::uint64_t bytes_written = 0;
    std::uint64_t duration_ms = 0;
    std::uint64_t lost = 0;                                             // events that are counted nowhere else
    std::array<std::uint64_t, DURATION_LIMITS_MS.size() + 1> took = {}; // the last: longer than all limits
    count_by_code ended;
    count_by_code failed; // attempts
    count_by_code refused;

    // Counts an event, unless it is counted already.
    void count(const flash_event &event);
    void count_all(std::span<const flash_event> events);

    bool operator==(const flash_event_totals &) const = default;
};

// The file's content, and back; totals of nothing for a content that format does not give.
std::string flash_event_totals_format(const flash_event_totals &totals);
flash_event_totals flash_event_totals_parse(std::string_view content);
