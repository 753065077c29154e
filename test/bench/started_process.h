// A process that a benchmark has started and ends.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

// How a program is started.
struct start_plan {
    std::string program; // as the process sees it, in its root
    std::vector<std::string> environment;
    std::vector<std::string> further_words = {}; // of its command line
    std::string root = {};                       // folder that becomes the process's root; empty: this machine's
    int inherited_fd = -1;                       // is its descriptor 3; -1: none
    std::string output = "/dev/null";            // of this machine: standard output and error
};

class started_process
{
public:
    explicit started_process(const start_plan &plan); // returns when it was forked
    ~started_process();                               // kills it
    started_process(const started_process &) = delete;
    started_process &operator=(const started_process &) = delete;

    pid_t number() const { return number_; }
    bool has_ended();
    void await_success(); // throws std::runtime_error when it ends in another way

private:
    pid_t number_;
    bool reaped_ = false;
    int status_ = 0;
};
