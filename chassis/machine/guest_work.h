// What the host does in a card that is a machine: runs commands, brings and fetches files.
#pragma once

#include <string>
#include <vector>

#include "guest_channel.h"

struct guest_result {
    int status = 0; // as in a shell: the exit status, or 128 and the signal
    std::string output;
    std::string errors;
};

// Runs a command and waits for its end. Its first word is looked up in the machine's PATH.
//   input  what it reads from its standard input
// Throws guest_error when it could not be started, when it wrote more than the agent keeps, or when the channel's
// time was up; in this last case it goes on running.
guest_result run_in_guest(guest_channel &channel, const std::vector<std::string> &command,
                          const std::string &input = {});

// Writes and reads a file of the machine. A file that is there is replaced; there is nothing atomic about it.
void put_guest_file(guest_channel &channel, const std::string &path, const std::string &contents);
std::string get_guest_file(guest_channel &channel, const std::string &path);
