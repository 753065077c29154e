#include "styled_text.h"

#include <algorithm>
#include <utility>

namespace
{

constexpr std::size_t INDENT_COLUMNS = 2;
constexpr const char *NO_COLOUR_ANY_MORE = "\033[0m";

const char *colour_of(text_meaning meaning)
{
    switch (meaning) {
    case text_meaning::well:
        return "\033[32m"; // green
    case text_meaning::to_do:
        return "\033[33m"; // yellow
    case text_meaning::wrong:
        return "\033[31m"; // red
    case text_meaning::none:
        break;
    }
    return "";
}

} // namespace

styled_text::styled_text(std::string text, text_meaning meaning)
{
    if (!text.empty())
        runs_.push_back({std::move(text), meaning});
}

styled_text::styled_text(const char *text, text_meaning meaning) : styled_text(std::string(text), meaning) {}

styled_text &styled_text::operator+=(const styled_text &more)
{
    const std::vector<run> added = more.runs_; // it may be this text itself
    runs_.insert(runs_.end(), added.begin(), added.end());
    return *this;
}

std::size_t styled_text::size() const
{
    std::size_t size = 0;
    for (const run &one : runs_)
        size += one.text.size();
    return size;
}

std::string styled_text::plain() const
{
    std::string text;
    for (const run &one : runs_)
        text += one.text;
    return text;
}

std::string styled_text::coloured() const
{
    std::string text;
    for (const run &one : runs_)
        text +=
            one.meaning == text_meaning::none ? one.text : colour_of(one.meaning) + one.text + NO_COLOUR_ANY_MORE;
    return text;
}

styled_text styled_text::part(std::size_t begin, std::size_t count) const
{
    styled_text cut;
    for (const run &one : runs_) {
        const std::size_t skipped = std::min(begin, one.text.size());
        const std::size_t taken = std::min(count, one.text.size() - skipped);
        cut += styled_text(one.text.substr(skipped, taken), one.meaning);
        begin -= skipped;
        count -= count == std::string::npos ? 0 : taken;
    }
    return cut;
}

std::vector<styled_text> wrapped(const styled_text &line, std::size_t columns, std::size_t rest_column)
{
    const std::string text = line.plain();
    const std::size_t own_indent = std::min(text.find_first_not_of(' '), text.size());
    const std::size_t indent = rest_column <= columns * 3 / 4 ? rest_column : own_indent + INDENT_COLUMNS;
    std::vector<styled_text> lines;
    std::size_t begin = 0;         // of the line's rest
    std::size_t word = own_indent; // where the rest's first word begins
    std::size_t room = columns;    // for the rest
    while (text.size() - begin > room) {
        std::size_t end = text.rfind(' ', begin + room);
        if (end == std::string::npos || end <= word)
            end = text.find(' ', std::max(word, begin + room));
        const std::size_t next = text.find_first_not_of(' ', end);
        if (end == std::string::npos || next == std::string::npos)
            break;
        const std::size_t last = text.find_last_not_of(' ', end);
        lines.push_back(styled_text(std::string(lines.empty() ? 0 : indent, ' ')) +
                        line.part(begin, last + 1 - begin));
        begin = word = next;
        room = columns > indent ? columns - indent : 0;
    }
    lines.push_back(styled_text(std::string(lines.empty() ? 0 : indent, ' ')) + line.part(begin));
    return lines;
}
