#include "text_lines.h"

#include <algorithm>

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view BLANKS = " \t\r";
    const std::size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

bool each_line(std::string_view text, const std::function<bool(unsigned number, std::string_view line)> &use)
{
    for (unsigned number = 1; !text.empty(); ++number) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = trimmed(text.substr(0, end));
        if (!line.empty() && line.front() != '#' && !use(number, line))
            return false;
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return true;
}
