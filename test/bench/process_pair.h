// Two processes, run in turn and timed from their start to their end.
#pragma once

#include <string>
#include <vector>

struct timing {
    double median_ms;
    double fastest_ms;
    double slowest_ms;
};

struct pair_timing {
    timing ours;
    timing reference;

    double ratio() const { return ours.median_ms / reference.median_ms; }
};

// Runs both command lines alternately, runs times each, after one run of each that is not counted.
// Throws std::runtime_error when a process does not end with exit status 0.
pair_timing time_in_turn(const std::vector<std::string> &ours, const std::vector<std::string> &reference,
                         unsigned runs);

// One line of figures: medians with their spread, the ratio, and whether it is at most the goal.
void print_pair(const std::string &what, const std::string &reference_name, const pair_timing &timing, double goal);
