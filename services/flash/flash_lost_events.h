// Events that could not be written into a flash's event log, because the disk was full or has failed: how many, in
// the file `lost_events` beside the log. It has one line of fixed length, which is written over the one before and
// so needs no room on a full disk:
//
//   00000000000000000017 0000000003 full
//
// three events behind event 17 of the log, for want of room. The next event that can be written is preceded by one
// that tells of them; event 17 is not the last then, and the line counts no more.
//
// Uses the flash's files only, so that tools compile it into themselves. REQUIRES of all but lost_events_of: the
// folder's lock.
#pragma once

#include <cstdint>
#include <string_view>

#include "flash_folder.h"

constexpr const char *FLASH_FILE_LOST_EVENTS = "lost_events";

struct lost_events {
    std::uint64_t after = 0; // the last event of the log
    std::uint64_t count = 0;
    bool is_full = false; // there was no room for the last one; false: something else has failed

    bool operator==(const lost_events &) const = default;
};

// The line with its newline, and back; none lost for anything that format does not give.
std::string lost_events_format(const lost_events &lost);
lost_events lost_events_parse(std::string_view text);

// Those behind the last event of the log; of a line that could not be written, this process alone knows.
lost_events lost_events_of(const flash_folder &folder, std::uint64_t last_sequence);

// Counts one more.
//   error  why it could not be written, of errno
// What is lost now.
lost_events lost_events_add(const flash_folder &folder, std::uint64_t last_sequence, int error);

// Makes the file, as long as there is room for it.
void lost_events_prepare(const flash_folder &folder);
