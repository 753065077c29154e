// biosctl program all: the standby supervisor through the active one, then the active one's own card.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "program_series.h"

struct program_all_options {
    program_options each = {}; // but for module and via
    bool keep_going = false;   // after a failure
};

outcome run_program_all(const program_all_options &options, bool json);

// The supervisors in the order of their programming, and those that the active one cannot program.
struct supervisor_order {
    std::vector<unsigned> modules = {};
    std::vector<unsigned> left_out = {};
};

//   only_module  the one module that the active supervisor programs, if there is but one
supervisor_order order_of(unsigned active, const std::vector<unsigned> &standbys,
                          std::optional<unsigned> only_module);

// What is told at the end; a pure function of the results.
outcome report_program_all(unsigned serving_slot, const supervisor_order &order,
                           const std::vector<programming_result> &results);
