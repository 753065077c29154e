// The commands of biosctl: a row for each with its arguments and what it runs. Adding a command is adding a row.
#pragma once

#include <functional>
#include <span>

#include <CLI/CLI.hpp>

#include "outcome.h"

// Does what a command line asks for, once it has been read.
using verb_run = std::function<outcome(bool json)>;

struct verb {
    const char *name;
    const char *help;
    bool in_chassis; // it is run when a chassis has been opened
    // Adds the arguments, which are read into an options record of the verb's own.
    verb_run (*add)(CLI::App &command);
};

std::span<const verb> verbs();
