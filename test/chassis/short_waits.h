// The daemon whose programming child can be told to wait shorter (short_waits.cpp), for the cards of a chassis.
#pragma once

#include <cstdlib>

constexpr const char *CHILD_RECEIVE_MS = "/mnt/pss/child_receive_ms"; // in a card's root; a number

// While it lives, chassis up starts that daemon.
class short_waiting_daemon
{
public:
    short_waiting_daemon() { (void)::setenv("BIOS_DAEMON", SHORT_WAITS_DAEMON_PROGRAM, 1); }
    ~short_waiting_daemon() { (void)::unsetenv("BIOS_DAEMON"); }
    short_waiting_daemon(const short_waiting_daemon &) = delete;
    short_waiting_daemon &operator=(const short_waiting_daemon &) = delete;
};
