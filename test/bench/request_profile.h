// Where the time of a request goes: what the daemon asks of the kernel for it, and what it logs.
#pragma once

#include <map>
#include <string>

struct request_profile {
    std::map<std::string, double> calls; // system calls of the daemon for a request, by their names
    double log_lines = 0;                // for a request
};

// Counted by strace while the daemon serves many requests that ask for no work. Throws when that fails.
request_profile profile_requests();

// For people; the copies of a payload are told, too.
std::string text_of(const request_profile &profile);
