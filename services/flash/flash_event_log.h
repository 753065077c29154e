// The event log of a flash: the file `events` in the flash's folder, a line for each event (flash_event.h). It
// stays when the card, the chassis or a process of it ends in any way; no write waits for the disk, so that a
// machine that loses its power loses the last lines.
//
// A line is appended in one write, under the folder's lock, and never to the rest of one that was cut off: readers
// take no lock, and leave out what is no whole line. A file that would grow beyond FLASH_EVENT_LOG_BYTES_MAX
// becomes `events.1`, in the place of the one before, and is begun anew; its events are added to `event_totals`
// before. The beginning of a programming reserves room for all that it may have to tell.
//
// What cannot be written is counted (flash_lost_events.h), and the next line that can be tells of it. Lines that
// are no events of the flash count for nothing (flash_event_faults.h).
//
// Uses chassis_dir.h and the flash's files only, so that tools compile it into themselves.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "flash_event.h"
#include "flash_event_totals.h"
#include "flash_folder.h"
#include "flash_lost_events.h"

constexpr std::uint64_t FLASH_EVENT_LOG_BYTES_MAX = std::uint64_t{1} << 20;

// In the form of an event's time.
std::string flash_event_time_now();

// Makes what a log needs when the disk is full, unless a process is at the log just now: it does the same. Does not
// wait.
void flash_event_log_prepare(unsigned slot, unsigned instance);

// An event that could not be written.
struct flash_event_loss {
    lost_events lost = {}; // with it
    int error = 0;         // of errno
};

// Appends an event; its sequence, pid and chain are filled in, and its time unless it has one.
//   allowed  asked with the last event before that was no refusal, if there is one; nothing is appended when it
//            says no
// None unless it is lost. Of a flash that is not there nothing is.
using flash_event_condition = std::function<bool(const std::optional<flash_event> &last_work)>;
std::optional<flash_event_loss> flash_event_append(const flash_folder &folder, flash_event event,
                                                   const flash_event_condition &allowed = {});

struct flash_event_history {
    std::vector<flash_event> events; // those of both files, in order of their sequence
    flash_event_totals totals;       // of these and all before
};
// Empty for a flash that is not there.
flash_event_history flash_event_history_of(unsigned slot, unsigned instance);

// The last event of the log; none when there is none. What is looked for is at its end.
std::optional<flash_event> flash_event_last_of(unsigned slot, unsigned instance);

// Changes whenever the log does: for followers, who need not read what they know.
struct flash_event_log_state {
    std::uint64_t file = 0;
    std::uint64_t size_bytes = 0;

    bool operator==(const flash_event_log_state &) const = default;
};
flash_event_log_state flash_event_log_state_of(unsigned slot, unsigned instance);
