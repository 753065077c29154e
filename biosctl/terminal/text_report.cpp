#include "text_report.h"

#include <algorithm>

namespace
{

constexpr std::size_t REST_INDENT_COLUMNS = 2;

std::vector<styled_text> lines_of(const text_line &line, std::optional<std::size_t> columns)
{
    if (!columns)
        return {line.text};
    const std::string text = line.text.plain();
    const std::size_t indent = std::min(text.find_first_not_of(' '), text.size());
    return wrapped(line.text, *columns, line.rest_column.value_or(indent + REST_INDENT_COLUMNS));
}

std::vector<styled_text> lines_of(const table &shown, std::optional<std::size_t> columns)
{
    return shown.lines(columns);
}

} // namespace

std::string text_of(const text_report &report, const output_style &style)
{
    std::string text;
    for (const auto &part : report) {
        const auto lines = std::visit([&](const auto &shown) { return lines_of(shown, style.columns); }, part);
        for (const styled_text &line : lines)
            text += (style.colours ? line.coloured() : line.plain()) + "\n";
    }
    return text;
}
