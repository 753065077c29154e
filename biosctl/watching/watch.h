// "biosctl watch": what goes on in the chassis, until it is left.
#pragma once

#include <chrono>
#include <optional>
#include <vector>

#include "outcome.h"

struct watch_options {
    std::vector<unsigned> modules = {}; // empty: all
    std::chrono::milliseconds interval{500};
    std::optional<std::chrono::seconds> duration = {}; // none: until Ctrl-C
    bool once = false;
};

// Prints by itself; the outcome of a watch that was left, by Ctrl-C or since its reader has gone, has nothing more
// to tell. REQUIRES: a chassis has been opened.
outcome run_watch(const watch_options &options, bool json);
