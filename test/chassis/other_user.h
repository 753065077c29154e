// What a process of another user of this machine tries on a chassis.
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

// Something to try, on its own: the result of one try does not depend on the one before.
struct attempt {
    std::string what;
    std::function<int()> make;   // 0: it worked; else the errno
    bool reads = false;          // of what an owner may open to others
    bool may_be_repeated = true; // the owner can do it, and no harm is done
};

// The results of all attempts, made one after the other by a process of that user, which has no group but its own.
// REQUIRES root, or to be that user. Throws when there is no such process.
std::vector<int> results_of(uid_t user, const std::vector<attempt> &attempts);

// Attempts on files and folders, by their names below a directory.
attempt creating_in(const std::string &directory, const std::string &folder);
attempt listing(const std::string &directory, const std::string &folder);
attempt reading(const std::string &directory, const std::string &file);
attempt writing_to(const std::string &directory, const std::string &file);
attempt removing(const std::string &directory, const std::string &file);
std::vector<attempt> locking(const std::string &directory, const std::string &file); // in each way that readers may

// Attempts on the transport.
attempt binding(const std::string &directory, const std::string &endpoint);
attempt sending_to(const std::string &directory, const std::string &endpoint, const std::string &datagram);
