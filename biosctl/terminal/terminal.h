// What may be written to a descriptor: plain lines, or on a terminal that understands them, escape sequences too.
#pragma once

#include <cstddef>
#include <optional>

// Whether it is a terminal on which lines can be drawn over: one whose TERM is neither "dumb" nor missing.
bool can_draw(int fd);

// Its size; 80 columns and 24 lines when it is none or does not tell.
struct terminal_size {
    unsigned columns;
    unsigned lines;
};
terminal_size size_of_terminal(int fd);

// Whether colours may be used: on a terminal on which can be drawn, unless NO_COLOR is set and not empty.
bool can_colour(int fd);

// How text is laid out that is printed to a descriptor.
struct output_style {
    std::optional<std::size_t> columns = {}; // of a terminal; none: lines are as long as they have to be
    bool colours = false;
};
output_style style_of(int fd);
