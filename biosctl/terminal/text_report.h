// What a command prints for people: lines and tables, which are laid out when it is known where they go to.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "styled_text.h"
#include "table.h"
#include "terminal.h"

struct text_line {
    styled_text text = {};
    std::optional<std::size_t> rest_column = {}; // where it goes on when it is wrapped; none: two behind its indent
};

using text_report = std::vector<std::variant<text_line, table>>;

// The lines, each with its newline, as an output takes them: wrapped to its columns and coloured where it may be.
std::string text_of(const text_report &report, const output_style &style);
