#include "terminal.h"

#include <cstdlib>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

constexpr terminal_size USUAL_SIZE = {.columns = 80, .lines = 24};

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
