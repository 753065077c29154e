// One run of the daemon: from a boot of the card, or a restart of its software, to the daemon's end. What is said
// of the daemon holds for the stand-in of a card that has none, and for the agent, whose session needs no /proc and
// kills nothing.
//
// The session is a process of its own between the card's keeper and the daemon. With namespaces it is the first
// process of the card's process namespace, otherwise the one that the card's orphans are given to. It starts the
// daemon in the card's root, reaps what ends, and when the daemon has ended kills everything that is left of it: at
// once, or when the daemon's child that programs has finished its work. It dies with the keeper, and the daemon
// with it.
#pragma once

#include <string>

#include "card_program.h"
#include "isolation.h"

// What the keeper is told, one message each, in this order.
struct session_report {
    enum class event : int {
        daemon_started, // sent by the daemon's process before it becomes the daemon; its credentials tell the
                        // number
        daemon_left,    // as daemon_ended, and a child of it works on: the session goes on with it
        daemon_ended,   // value: its wait status
    };
    event what;
    int value;
};

struct session_options {
    std::string directory; // of the chassis, absolute
    unsigned slot = 0;
    isolation way = isolation::plain;
    card_program program = card_program::daemon;
    int report_fd = -1; // socket to the keeper
};

// Runs the session in the calling process, a child that fork_into_isolation() made. The chassis is opened anew in
// it.
[[noreturn]] void run_session(const session_options &options);
