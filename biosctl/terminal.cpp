#include "terminal.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

constexpr unsigned USUAL_COLUMNS = 80;

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

unsigned terminal_columns(int fd)
{
    winsize size{};
    return ::ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : USUAL_COLUMNS;
}

std::string wrapped(const std::string &text, std::size_t columns)
{
    std::istringstream lines(text);
    std::string result;
    for (std::string line; std::getline(lines, line);)
        result += (result.empty() ? "" : "\n") + (line.size() > columns ? wrapped_line(line, columns) : line);
    return text.ends_with('\n') ? result + "\n" : result;
}

std::string fitted(const std::string &text, int fd)
{
    return ::isatty(fd) == 1 ? wrapped(text, terminal_columns(fd)) : text;
}
