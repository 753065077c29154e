// One command line of the daemon.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>

constexpr std::size_t COMMAND_BYTES = 256;

// Formatted like every command of the daemon: cut at its buffer's end.
struct command_line {
    char text[COMMAND_BYTES];

    [[gnu::format(printf, 2, 3)]] explicit command_line(const char *format, ...)
    {
        std::va_list arguments;
        va_start(arguments, format);
        (void)std::vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
    }
};
