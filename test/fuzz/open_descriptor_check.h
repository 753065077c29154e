// Tells at the end of a scope whether it left the process's descriptors as they were.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include "fuzz_input.h"

class open_descriptor_check
{
public:
    open_descriptor_check() = default;
    open_descriptor_check(const open_descriptor_check &) = delete;
    open_descriptor_check &operator=(const open_descriptor_check &) = delete;
    ~open_descriptor_check() { require(next_number() == at_first_, "every descriptor is closed, and once"); }

private:
    // A descriptor left open takes the number that the next one would have got.
    static int next_number()
    {
        const int number = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
        (void)::close(number);
        return number;
    }

    int at_first_ = next_number();
};
