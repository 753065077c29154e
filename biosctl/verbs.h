// The commands of biosctl: a row for each with its arguments and what it runs. Adding a command is adding a row.
#pragma once

#include <span>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "outcome.h"

// What the command line gave; which options it named is asked of the parser.
struct arguments {
    std::string dir;
    bool json = false;
    std::string image;
    unsigned type = 0;
    std::string module;
    std::vector<unsigned> modules;
    unsigned via = 0;
    unsigned timeout_s = 0;
    bool keep_going = false;
    bool allow_older = false;
    bool dry_run = false;
    bool remove_image = false;
    std::string output;
    unsigned size_bytes = 0;
    bool overwrite = false;
    unsigned interval_ms = 0;
    unsigned duration_s = 0;
    bool once = false;
    unsigned last = 0;
    bool follow = false;
    std::string code;
};

struct verb {
    const char *name;
    const char *help;
    bool in_chassis; // run() is called when a chassis has been opened
    void (*add)(CLI::App &command, arguments &given);
    outcome (*run)(const CLI::App &command, const arguments &given);
};

std::span<const verb> verbs();
