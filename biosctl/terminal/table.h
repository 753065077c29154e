// A table as lines of text. It is laid out cell by cell on what is seen, so that colours take no room.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "styled_text.h"

enum class cell_alignment { left, right };

struct table_column {
    const char *heading;
    std::size_t width_min = 0; // it is as wide as its widest cell, and at least so wide
    cell_alignment alignment = cell_alignment::left;
};

struct table_cell {
    std::string text; // empty: nothing is known, or there is nothing; shown as "-"
    text_meaning meaning = text_meaning::none;

    table_cell(std::string cell_text, text_meaning cell_meaning = text_meaning::none)
        : text(std::move(cell_text)),
          meaning(cell_meaning)
    {
    }
    table_cell(const char *cell_text, text_meaning cell_meaning = text_meaning::none)
        : text(cell_text),
          meaning(cell_meaning)
    {
    }
};

class table
{
public:
    explicit table(std::vector<table_column> columns);

    void add(std::vector<table_cell> row); // REQUIRES: a cell for each column

    // The heading and the rows, with gaps of at least two blanks between the cells and without blanks at their
    // ends.
    //   limit  columns of a terminal; none: a line is as long as it has to be. The last column is wrapped under
    //          itself. Columns that do not fit stand below the others, indented, for the heading and each row alike
    std::vector<styled_text> lines(std::optional<std::size_t> limit) const;

    // Forgets the rows and the heading and keeps the widths: for a table that goes on when more is known.
    void go_on();

private:
    struct deck { // columns that stand side by side
        std::size_t first = 0;
        std::size_t count = 0;
        std::size_t indent = 0;
    };

    std::size_t room_for(std::size_t column, std::size_t limit) const;
    std::vector<deck> decks(std::optional<std::size_t> limit) const;
    void add_lines(std::vector<styled_text> &lines, const std::vector<table_cell> &row, const deck &of,
                   std::optional<std::size_t> limit) const;

    std::vector<table_column> columns_;
    std::vector<std::size_t> widths_;
    std::vector<std::vector<table_cell>> rows_; // the heading is the first
};
