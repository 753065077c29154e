// What the facts say about each card: one row per module. A pure function of the facts.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "watch_facts.h"

// The first that holds:
enum class watch_state {
    being_programmed, // a process works on one of its flashes, or its lock is held for a programming
    not_verified,     // a flash was begun to be programmed and nobody goes on: it may be half old and half new
    programs_another, // its daemon holds the lock of another module for a programming
    no_daemon,        // nobody serves there
    daemon_silent,    // its daemon was stopped, hangs, or does something for very long
    unconfirmed,      // its agent does not answer: nothing is known of its flashes
    locked,           // its lock is held for something else
    idle,
};
const char *watch_state_name(watch_state state); // as in JSON

struct watched_progress {
    unsigned instance = 0; // of the flash
    std::uint32_t phase = 0;
    std::uint32_t percent = 0; // of the attempt
    std::uint32_t attempt = 0; // 0: none in particular
    std::string since;
    bool goes_on = false; // false: it is where the last process has stopped

    bool operator==(const watched_progress &) const = default;
};

struct watched_lock {
    unsigned slot = 0; // of the holder; 0: a tool
    unsigned pid = 0;  // as the holder sees itself
    std::uint32_t reason = 0;
    std::string since;           // empty: the holder has not told anything yet
    std::string locked_for = {}; // "USER@HOST" of an operator; empty: a process has it

    bool operator==(const watched_lock &) const = default;
};

struct watch_row {
    unsigned slot = 0;
    std::string role;
    bool serves = false;
    watch_state state = watch_state::idle;
    std::optional<unsigned> programs_module = {};  // while it programs another one
    std::vector<unsigned> marked_flashes = {};     // instances: begun to be programmed and not found equal since
    bool needs_marked = false;                     // the card's next start may need one of them
    std::optional<watched_progress> progress = {}; // of the programming that runs, or that was left
    std::optional<watched_lock> lock = {};         // of this module
    std::optional<noticed_result> result = {};     // of the last programming that a notice told of

    bool operator==(const watch_row &) const = default;
};

struct watch_snapshot {
    std::string time; // UTC
    bool locks_readable = true;
    bool results_readable = true;
    std::vector<watch_row> rows = {}; // in order of the slots

    // Whether anything but the time differs.
    bool differs_from(const watch_snapshot &other) const
    {
        return locks_readable != other.locks_readable || results_readable != other.results_readable ||
               rows != other.rows;
    }
};

watch_snapshot make_snapshot(const watch_facts &facts);

// The snapshot with only those rows that the one before does not have as they are.
watch_snapshot changed_rows(const watch_snapshot &before, const watch_snapshot &now);
