// The chain of a flash's event lines: the member `chain` of a line is the SHA-256 of that of the line before, as
// its hexadecimal digits, and of the line itself without that member. So a line that is changed, taken out or put
// in shows, unless all lines behind it are written anew; the last link is therefore known elsewhere, too.
//
// Lines from before there was a chain have no such member; the chain begins behind them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "flash_event.h"

// The link of an event. before: that of the event before; empty when there is none.
std::string flash_event_chain(const std::string &before, const flash_event &event);

enum class chain_fault : std::uint8_t {
    missing, // lines before this one
    changed, // this line, or the link of the one before
};
struct chain_break {
    std::uint64_t sequence = 0; // of the first line behind the fault, or of the line that was changed
    chain_fault fault = chain_fault::missing;
    std::uint64_t lines = 0; // that are missing

    bool operator==(const chain_break &) const = default;
};

// Where events that follow each other in a log are not a chain. The first ones of a log may have been turned over:
// nothing is said of what was before them.
std::vector<chain_break> flash_event_chain_breaks(std::span<const flash_event> events);
