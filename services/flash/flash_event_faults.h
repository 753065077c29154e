// What is wrong with the lines of a flash's event log, besides its chain (flash_event_chain.h): lines that readers
// leave out, each kind of them in each of the two files.
//
// Uses chassis_dir.h and the flash's files only, so that tools compile it into themselves.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "flash_lost_events.h"

enum class flash_line_fault : std::uint8_t {
    no_event,     // no line that flash_event_format gives
    other_flash,  // an event of another flash
    twice,        // an event whose number was there before
    out_of_order, // an event with a number below that of an event before it, and that was not there
    unfinished,   // the end of the file is no whole line
};

struct flash_line_finding {
    flash_line_fault fault = flash_line_fault::no_event;
    bool in_older = false;      // in `events.1`
    std::uint64_t lines = 0;    // that are so
    std::uint64_t line = 0;     // the first one, counted from 1
    std::uint64_t sequence = 0; // of its event; 0: it is none

    bool operator==(const flash_line_finding &) const = default;
};

// Ordered by file and kind; empty when nothing is wrong. Takes no lock: the line that a writer is at is no fault.
std::vector<flash_line_finding> flash_event_log_faults(unsigned slot, unsigned instance);

// Events that could not be written since the last one of the log, as far as the disk keeps that.
lost_events flash_events_lost(unsigned slot, unsigned instance);
