// What the lab's programs print: all of it, or the program fails and says why.
#pragma once

#include <cerrno>
#include <string>
#include <system_error>
#include <unistd.h>

#include "write_all.h"

[[noreturn]] inline void throw_output_error()
{
    throw std::system_error(errno, std::generic_category(), "the output could not be written");
}

// Throws std::system_error when standard output does not take the text.
inline void print_output(const std::string &text)
{
    if (!write_all(STDOUT_FILENO, text.data(), text.size()))
        throw_output_error();
}
