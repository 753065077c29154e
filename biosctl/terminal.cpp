#include "terminal.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <sstream>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

constexpr terminal_size USUAL_SIZE = {.columns = 80, .lines = 24};

constexpr const char *GREEN = "\033[32m";
constexpr const char *YELLOW = "\033[33m";
constexpr const char *RED = "\033[31m";
constexpr const char *NO_COLOUR_ANY_MORE = "\033[0m";

// The first that fits counts: a phrase stands before those that it contains.
struct emphasis {
    std::string_view phrase;
    const char *colour;
};
constexpr emphasis EMPHASES[] = {
    {"programmed and verified", GREEN},
    {"not programmed", RED},
    {"programming failed", RED},
    {"not verified: do not reboot", RED},
    {"do not reboot", RED},
    {"not in step", RED},
    {"in step", GREEN},
    {"update available", YELLOW},
    {"reboot pending", YELLOW},
    {"newer than shipped", YELLOW},
    {"being programmed", YELLOW},
    {"unreachable", RED},
    {"unknown", RED},
    {"no daemon", RED},
    {"unconfirmed", RED},
};

bool is_word_character(const std::string &text, std::size_t place)
{
    return place < text.size() && std::isalnum(static_cast<unsigned char>(text[place])) != 0;
}

// Null when none of the phrases stands there as words of its own.
const emphasis *emphasis_at(const std::string &text, std::size_t place)
{
    if (place > 0 && is_word_character(text, place - 1))
        return nullptr;
    for (const emphasis &known : EMPHASES) {
        if (text.compare(place, known.phrase.size(), known.phrase) == 0 &&
            !is_word_character(text, place + known.phrase.size()))
            return &known;
    }
    return nullptr;
}

// Where the lines that continue this one begin.
std::size_t continuation_column(const std::string &line, std::size_t columns)
{
    const std::size_t begin = std::min(line.find_first_not_of(' '), line.size());
    std::size_t column = begin + 2;
    for (std::size_t gap = line.find("  ", begin); gap < columns; gap = line.find("  ", column))
        column = std::min(line.find_first_not_of(' ', gap), line.size());
    return column <= columns * 3 / 4 ? column : begin + 2;
}

std::string wrapped_line(std::string line, std::size_t columns)
{
    const std::string indent(continuation_column(line, columns), ' ');
    std::string text;
    while (line.size() > columns) {
        const std::size_t first_word = line.find_first_not_of(' ');
        std::size_t end = line.rfind(' ', columns);
        if (end == std::string::npos || end <= first_word)
            end = line.find(' ', std::max(first_word, columns));
        const std::size_t next = line.find_first_not_of(' ', end);
        if (end == std::string::npos || next == std::string::npos)
            break;
        text += line.substr(0, line.find_last_not_of(' ', end) + 1) + "\n";
        line = indent + line.substr(next);
    }
    return text + line;
}

} // namespace

bool can_draw(int fd)
{
    const char *kind = std::getenv("TERM");
    return ::isatty(fd) == 1 && kind != nullptr && kind[0] != '\0' && std::string_view(kind) != "dumb";
}

bool can_colour(int fd)
{
    const char *unwanted = std::getenv("NO_COLOR");
    return can_draw(fd) && (unwanted == nullptr || unwanted[0] == '\0');
}

terminal_size size_of_terminal(int fd)
{
    winsize size{};
    if (::ioctl(fd, TIOCGWINSZ, &size) != 0)
        return USUAL_SIZE;
    return {size.ws_col != 0 ? size.ws_col : USUAL_SIZE.columns, size.ws_row != 0 ? size.ws_row : USUAL_SIZE.lines};
}

output_style style_of(int fd)
{
    output_style style{.colours = can_colour(fd)};
    if (::isatty(fd) == 1)
        style.columns = size_of_terminal(fd).columns;
    return style;
}

std::string wrapped(const std::string &text, std::size_t columns)
{
    std::istringstream lines(text);
    std::string result;
    for (std::string line; std::getline(lines, line);)
        result += (result.empty() ? "" : "\n") + (line.size() > columns ? wrapped_line(line, columns) : line);
    return text.ends_with('\n') ? result + "\n" : result;
}

std::string emphasised(const std::string &text)
{
    std::string result;
    for (std::size_t place = 0; place < text.size();) {
        const emphasis *known = emphasis_at(text, place);
        if (known == nullptr) {
            result += text[place++];
            continue;
        }
        result += known->colour;
        result += known->phrase;
        result += NO_COLOUR_ANY_MORE;
        place += known->phrase.size();
    }
    return result;
}

std::string coloured(const std::string &text, int fd)
{
    return can_colour(fd) ? emphasised(text) : text;
}

std::string wrapped_for(const std::string &text, int fd)
{
    return ::isatty(fd) == 1 ? wrapped(text, size_of_terminal(fd).columns) : text;
}

std::string fitted(const std::string &text, int fd)
{
    return coloured(wrapped_for(text, fd), fd);
}
