// What of a text may stand in a line of a log or on a terminal: printable ASCII. A newline would forge a second
// line, and an escape or one of the characters 0x80 to 0x9f would steer the terminal.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

constexpr bool is_printable(char character)
{
    return character >= ' ' && character <= '~';
}

// The text with a stand-in for each character that is not printable.
inline std::string printable_text(std::string_view text, char stand_in = '?')
{
    std::string printable(text);
    std::replace_if(
        printable.begin(), printable.end(), [](char character) { return !is_printable(character); }, stand_in);
    return printable;
}

// Likewise in lines; these stay lines, with their tabs.
inline void make_lines_printable(char *lines, std::size_t bytes)
{
    const auto steers = [](char character) {
        return !is_printable(character) && character != '\n' && character != '\t';
    };
    std::replace_if(lines, lines + bytes, steers, '?');
}

// Likewise in a field of a message: up to its NUL, or its end.
inline void make_printable(char *field, std::size_t bytes)
{
    std::replace_if(
        field, field + ::strnlen(field, bytes), [](char character) { return !is_printable(character); }, '?');
}
