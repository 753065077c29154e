// Runs the daemon's main in a process of its own, on the platform that the test has prepared.
#pragma once

#include <cstddef>
#include <string>

// How a daemon process ended. What it did is in the platform's record, together with the lines
// "main returned 0x40710010" or "exit(-1)", "memory leak" when blocks were lost and "descriptor leak" when more
// descriptors were open at the end of the script than at the first receive.
struct daemon_end {
    bool script_ended = false; // the message script came to its end and the daemon still ran
    int exit_status = -1;      // otherwise: the exit status of the process
    std::string killed_by;     // not empty: the signal that ended the process
    std::string output;        // what it printed on standard output
};

// Runs main until the script of messages ends, main returns or exit is called; at most 30 seconds.
daemon_end run_daemon();

// Descriptors that this process has open.
std::ptrdiff_t open_descriptors();

// True in a process that run_daemon started.
bool in_daemon_process();

// Ends such a process as exit does: runs the handlers that were installed with on_exit.
[[noreturn]] void end_daemon_process(int status);
