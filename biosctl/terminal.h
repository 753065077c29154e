// What may be written to a descriptor: plain lines, or on a terminal that understands them, escape sequences too.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

// Whether it is a terminal on which lines can be drawn over: one whose TERM is neither "dumb" nor missing.
bool can_draw(int fd);

// Its size; 80 columns and 24 lines when it is none or does not tell.
struct terminal_size {
    unsigned columns;
    unsigned lines;
};
terminal_size size_of_terminal(int fd);

// Breaks the lines that are longer than so many columns, between words. What follows is indented to where the
// line's last column begins (a gap of two blanks or more is between columns), or by two more than the line itself.
// A word that is too long stays whole.
std::string wrapped(const std::string &text, std::size_t columns);

// Whether colours may be used: on a terminal on which can be drawn, unless NO_COLOR is set and not empty.
bool can_colour(int fd);

// How text is laid out that is printed to a descriptor.
struct output_style {
    std::optional<std::size_t> columns = {}; // of a terminal; none: lines are as long as they have to be
    bool colours = false;
};
output_style style_of(int fd);

// With escape sequences that colour what an operator looks for: what is well, what is to be done, what went wrong.
std::string emphasised(const std::string &text);
std::string coloured(const std::string &text, int fd); // likewise, where colours may be used

// The text as it is to be printed to a descriptor: wrapped for a terminal, else as it is.
std::string wrapped_for(const std::string &text, int fd);

// Likewise, and coloured where that may be.
std::string fitted(const std::string &text, int fd);
