// A text of runs, each with what it means to an operator. The meaning gives the colour where colours are
// understood.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

enum class text_meaning {
    none,
    well,  // as it should be
    to_do, // waits for the operator, or for an end
    wrong, // has failed, is not known, or must not be done
};

// A run that stands in the program itself.
struct styled_literal {
    const char *text;
    text_meaning meaning = text_meaning::none;
};

class styled_text
{
public:
    styled_text() = default;
    styled_text(std::string text, text_meaning meaning = text_meaning::none);
    styled_text(const char *text, text_meaning meaning = text_meaning::none);
    styled_text(const styled_literal &literal) : styled_text(literal.text, literal.meaning) {}

    styled_text &operator+=(const styled_text &more);
    friend styled_text operator+(styled_text first, const styled_text &second) { return first += second; }

    bool empty() const { return size() == 0; }
    std::size_t size() const; // characters that are seen
    std::string plain() const;
    std::string coloured() const; // with escape sequences

    // The characters from begin on, at most count.
    styled_text part(std::size_t begin, std::size_t count = std::string::npos) const;

private:
    struct run {
        std::string text;
        text_meaning meaning;
    };
    std::vector<run> runs_ = {};
};

// Breaks a line between words where it is longer than so many columns. What follows is indented to rest_column, or
// by two more than the line itself when that is in the last quarter. A word that is too long stays whole.
std::vector<styled_text> wrapped(const styled_text &line, std::size_t columns, std::size_t rest_column);
