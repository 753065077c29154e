// "biosctl events": what happened to the flashes, as their logs tell it. Asks no daemon.
#pragma once

#include <optional>
#include <vector>

#include "outcome.h"

struct events_options {
    std::vector<unsigned> modules = {}; // empty: all
    std::optional<unsigned> last = {};  // only so many of those that have happened
    bool follow = false;                // and then those that happen, until Ctrl-C
};

// Prints by itself. REQUIRES: a chassis has been opened.
outcome run_events(const events_options &options, bool json);
