// What a benchmark tells: two things measured in turn in one run, and how far they may be apart.
#pragma once

#include <string>
#include <vector>

// What was measured of one side, in the order of measuring. Never empty.
struct samples {
    std::string name; // "bios_daemon", "cp + fsync"
    std::vector<double> values;

    double median() const;
    double percentile(double percent) const; // nearest rank
    double least() const;
    double most() const;
};

enum class comparison {
    ratio,      // ours / reference
    difference, // ours - reference, in the figure's unit
    count,      // of what must not happen; nothing is compared
};

// One line of the table.
struct figure {
    unsigned row;     // of the table in doc/performance.md that it belongs to
    std::string name; // "round trip, one processor"
    std::string unit; // of both sides: "us", "ms", "KiB"
    samples ours;
    samples reference; // without values for a count
    comparison compared = comparison::ratio;
    double goal = 0;           // the value may be this at most
    std::string remark = {};   // what a reader has to know of the measuring; may be empty
    double of_percentile = 50; // of both sides' values that is compared

    double value() const;
    bool is_met() const { return value() <= goal; }
};

// One of the benchmarks. measure() throws when something could not be measured.
struct benchmark_entry {
    const char *name; // for the command line
    const char *what; // for the progress
    std::vector<figure> (*measure)();
};

// For people: a line for each figure, columns aligned, remarks below.
std::string table_of(const std::vector<figure> &figures);

// For programs: {"machine": {...}, "date": ..., "figures": [{name, ours, reference, ratio, goal, met, ...}]}.
std::string json_of(const std::vector<figure> &figures);
