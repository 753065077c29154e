// Processes that are kept on one processor for a while.
#pragma once

#include <sched.h>
#include <sys/types.h>
#include <utility>
#include <vector>

// While the object lives the processes run on one processor, the last that this process may use; 0 is this process.
// Throws std::runtime_error.
class on_one_processor
{
public:
    explicit on_one_processor(const std::vector<pid_t> &processes);
    ~on_one_processor();
    on_one_processor(const on_one_processor &) = delete;
    on_one_processor &operator=(const on_one_processor &) = delete;

private:
    std::vector<std::pair<pid_t, cpu_set_t>> before_;
};
