// What is told about a programming at its end.
#pragma once

#include <string>

#include "outcome.h"
#include "program_wait.h"

// Whose flash was to be programmed by whom.
struct program_subject {
    unsigned asked_module = 0;      // as on the command line
    unsigned programmed_module = 0; // the one that the serving daemon programs
    unsigned serving_slot = 0;
};

outcome report_programming(const program_subject &subject, const programming_end &end);
