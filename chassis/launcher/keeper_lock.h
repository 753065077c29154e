// Who keeps a card: the process that holds the record lock on slots/SLOT/keeper for as long as it lives.
//
// The kernel tells the holder's process number, so a number left over from a crash is never taken for a process
// of today. The lock belongs to the process: its children do not have it.
#pragma once

#include <chrono>

#include "unique_fd.h"

// Takes the lock for this process. The descriptor has to stay open, and this process must not ask keeper_of() for
// the slot: closing any descriptor of the file gives the lock up. No descriptor when another process keeps the
// card; throws launcher_error on any other failure.
unique_fd become_keeper(unsigned slot);

// A process that keeps a card; a descriptor rather than a number, so that signals reach it or nobody.
struct keeper {
    int pid = 0;
    unique_fd process;

    explicit operator bool() const { return static_cast<bool>(process); }
};

// The process that keeps the slot's card; none when the card is down.
keeper keeper_of(unsigned slot);

// Whether the process has ended, after waiting for at most that long.
bool has_ended(const keeper &process, std::chrono::milliseconds patience);

// Takes the lock that keeps two commands from starting or stopping one chassis at the same time.
// Throws launcher_error when another command has it.
unique_fd lock_commands();
