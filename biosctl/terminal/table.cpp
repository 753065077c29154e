#include "table.h"

#include <algorithm>
#include <sstream>
#include <utility>

namespace
{

constexpr std::size_t GAP_COLUMNS = 2;
constexpr std::size_t LAST_COLUMN_SHARE = 5;   // the last column gets a fifth of a line, if it needs so much
constexpr std::size_t DECK_INDENT_COLUMNS = 2; // of the columns that stand below the first ones

std::string blanks(std::size_t count)
{
    return std::string(count, ' ');
}

std::size_t longest_word(const std::string &text)
{
    std::istringstream words(text);
    std::size_t longest = 0;
    for (std::string word; words >> word;)
        longest = std::max(longest, word.size());
    return longest;
}

} // namespace

table::table(std::vector<table_column> columns) : columns_(std::move(columns))
{
    std::vector<table_cell> heading;
    for (const table_column &column : columns_) {
        widths_.push_back(column.width_min);
        heading.emplace_back(column.heading);
    }
    add(std::move(heading));
}

void table::add(std::vector<table_cell> row)
{
    for (std::size_t column = 0; column < columns_.size(); ++column) {
        if (row[column].text.empty())
            row[column].text = "-";
        widths_[column] = std::max(widths_[column], row[column].text.size());
    }
    rows_.push_back(std::move(row));
}

std::vector<styled_text> table::lines(std::optional<std::size_t> limit) const
{
    const std::vector<deck> all = decks(limit);
    std::vector<styled_text> lines;
    for (const std::vector<table_cell> &row : rows_) {
        for (const deck &one : all)
            add_lines(lines, row, one, limit);
    }
    return lines;
}

void table::go_on()
{
    rows_.clear();
}

// What a column needs of a line. The last one may be wrapped: its longest word and a share of the line are enough.
std::size_t table::room_for(std::size_t column, std::size_t limit) const
{
    if (column + 1 < columns_.size())
        return widths_[column];
    std::size_t room = 0;
    std::size_t widest = 0;
    for (const std::vector<table_cell> &row : rows_) {
        room = std::max(room, longest_word(row[column].text));
        widest = std::max(widest, row[column].text.size());
    }
    return std::min(widest, std::max(room, limit / LAST_COLUMN_SHARE));
}

std::vector<table::deck> table::decks(std::optional<std::size_t> limit) const
{
    std::vector<deck> all{{}};
    std::size_t used = 0; // of the line, the gap behind included
    for (std::size_t column = 0; column < columns_.size(); ++column) {
        if (limit && all.back().count > 0 && used + room_for(column, *limit) > *limit) {
            all.push_back({.first = column, .indent = DECK_INDENT_COLUMNS});
            used = DECK_INDENT_COLUMNS;
        }
        ++all.back().count;
        used += widths_[column] + GAP_COLUMNS;
    }
    return all;
}

void table::add_lines(std::vector<styled_text> &lines, const std::vector<table_cell> &row, const deck &of,
                      std::optional<std::size_t> limit) const
{
    styled_text line(blanks(of.indent));
    const std::size_t last = of.first + of.count - 1;
    for (std::size_t column = of.first; column <= last; ++column) {
        const styled_text cell(row[column].text, row[column].meaning);
        const std::string padding = blanks(widths_[column] - cell.size());
        if (columns_[column].alignment == cell_alignment::right)
            line += padding;
        if (column == last)
            break;
        line += cell;
        if (columns_[column].alignment == cell_alignment::left)
            line += padding;
        line += blanks(GAP_COLUMNS);
    }
    const std::size_t begin = line.size();
    const styled_text cell(row[last].text, row[last].meaning);
    if (!limit) {
        lines.push_back(line + cell);
        return;
    }
    for (const styled_text &piece : wrapped(cell, *limit > begin ? *limit - begin : 0, 0)) {
        lines.push_back(line + piece);
        line = blanks(begin);
    }
}
