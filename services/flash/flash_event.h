// One line of a flash's event log: what happened to the flash, as a JSON object of fixed words and numbers.
//
//   {"time":"2026-01-31T23:59:59.123Z","slot":3,"flash":"primary","sequence":17,"pid":41,"event":"failed",
//    "attempt":1,"sectors_erased":4,"bytes_written":8192,"result":"0x40710009","duration_ms":1520}
//
// on one line. The members up to "event" are always there, the others in this order where the event has them:
//
//   begun     the programming of a flash begins          image_bytes and version of the image; of an order its
//                                                        old_version, that the flash held, sha256, user and host
//   attempt   an attempt at it begins                    attempt, image_bytes, version
//   erased    the whole flash was erased                 sectors_erased, duration_ms
//   verified  the flash was found equal to the image     attempt, sectors_erased, bytes_written, duration_ms
//   equal     the same, and nothing had to be changed    attempt, duration_ms
//   failed    the attempt, or the erase before the       attempt, sectors_erased, bytes_written, result,
//             first, has failed                          duration_ms
//   refused   the attempt did not get to the flash       attempt, result
//   ended     the programming has ended                  result, duration_ms since it was begun
//   cut_off   a programming was found that nobody goes   none
//             on with: the flash is marked
//   lost      events before this one could not be written    lost, their number, and reason: "disk full" or
//                                                        "write failed"
//
// sequence counts the events of the flash; pid is the process as it sees itself; attempt is left out for an erase.
// Counts are of operations, those repeated too. The last member is the line's link, "chain" (flash_event_chain.h);
// lines from before there was a chain have none.
//
// Uses no library but the C++ one, so that tools compile it into themselves.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

enum class flash_event_kind : std::uint8_t {
    begun,
    attempt,
    erased,
    verified,
    equal,
    failed,
    refused,
    ended,
    cut_off,
    lost
};
const char *flash_event_name(flash_event_kind kind); // as in the line
const char *flash_instance_name(unsigned instance);  // "primary" or "alternate"

struct flash_event {
    std::string time = {}; // UTC, "2026-01-31T23:59:59.123Z"
    unsigned slot = 0;
    unsigned instance = 0; // below FLASH_INSTANCE_COUNT
    std::uint64_t sequence = 0;
    std::uint32_t pid = 0;
    flash_event_kind kind = flash_event_kind::begun;
    std::optional<std::uint32_t> attempt = {};
    std::optional<std::uint64_t> image_bytes = {};
    std::string version = {};     // empty: not known
    std::string old_version = {}; // that the flash held; empty: not known
    std::string sha256 = {};      // of the image that was ordered, 64 hexadecimal digits; empty: not known
    std::string user = {};        // who has ordered it; empty: not known
    std::string host = {};        //
    std::optional<std::uint64_t> sectors_erased = {};
    std::optional<std::uint64_t> bytes_written = {};
    std::optional<std::uint32_t> result = {};
    std::optional<std::uint64_t> duration_ms = {};
    std::optional<std::uint64_t> lost = {}; // events
    std::string reason = {};                // why they are
    std::string chain = {};                 // 64 hexadecimal digits; empty: none

    bool operator==(const flash_event &) const = default;
};

constexpr std::uint64_t FLASH_EVENT_SEQUENCE_MAX = std::uint64_t{1} << 53; // what is above it comes of damage
constexpr std::size_t FLASH_EVENT_LINE_BYTES_MAX = 1024;                   // of a line with its newline

// The line with its newline. Of a text only what needs no escape in JSON is told, 64 characters at most, and a
// digest only when it is one.
std::string flash_event_format(const flash_event &event);

// The event of a line without its newline; none for anything that format does not give.
std::optional<flash_event> flash_event_parse(std::string_view line);
