// Several modules programmed one after the other: what was done, the table about it and how it ends.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "outcome.h"
#include "program_options.h"
#include "programming_result.h"

struct series_step {
    unsigned module = 0;
    std::string expected_version = {}; // that the flash has to hold afterwards; empty: not looked at
};

struct series_options {
    program_options each = {}; // but for the module
    unsigned serving_slot = 0; // whose daemon is asked
    bool keep_going = false;   // after a failure
    bool json = false;
};

// What the whole command reports with the results so far; for Ctrl-C.
using series_report = std::function<outcome(const std::vector<programming_result> &results)>;

// Programs in the order of the steps up to the first failure. Without json each end is printed when it comes. The
// result has every step. REQUIRES: catch_interrupt was called.
std::vector<programming_result> run_series(const std::vector<series_step> &steps, const series_options &options,
                                           const series_report &report);

// Pure functions of results.
table series_table(std::span<const programming_result> results); // a line per module
nlohmann::ordered_json series_json(std::span<const programming_result> results);
// The worst of the results: interrupted, failed, not found, busy, in this order; done when any was programmed and
// nothing to do when none had to be.
exit_code series_exit(std::span<const programming_result> results);
