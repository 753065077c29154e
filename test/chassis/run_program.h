// Programs that a test runs, with what they print caught.
//
// The output goes to memory files and not to pipes: background processes that a program leaves behind would keep a
// pipe open, and its reader waiting.
#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

#include "unique_fd.h"

struct finished_program {
    int exit_code = -1; // -1: it was killed, or did not end in time
    std::string output;
    std::string errors;
};

class running_program
{
public:
    // words: the program's path, or a name to be found in PATH, and its arguments. Standard input is /dev/null.
    explicit running_program(const std::vector<std::string> &words);
    ~running_program(); // kills it when it still runs
    running_program(const running_program &) = delete;
    running_program &operator=(const running_program &) = delete;

    std::string output() const; // so far
    std::string errors() const;
    void signal(int number) const;

    finished_program wait(std::chrono::seconds patience = std::chrono::seconds(120));

private:
    unique_fd output_;
    unique_fd errors_;
    pid_t pid_ = -1;
};

finished_program run_program(const std::vector<std::string> &words);
