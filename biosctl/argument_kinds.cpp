#include "argument_kinds.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "programming_messages.h"
#include "source.h"

namespace
{

// What is wrong with the text, empty when it is a number of the range; then the text is rewritten.
std::string take_decimal(std::string &text, unsigned low, unsigned high, const std::string &range)
{
    unsigned number = 0;
    const char *end = text.data() + text.size();
    const auto [rest, failure] = std::from_chars(text.data(), end, number);
    if (failure != std::errc{} || rest != end || number < low || number > high)
        return "'" + text + "' is no number " + range;
    text = std::to_string(number);
    return {};
}

std::string range_text(unsigned low, unsigned high)
{
    return std::to_string(low) + ".." + std::to_string(high);
}

} // namespace

CLI::Validator decimal(unsigned low, unsigned high)
{
    const std::string range = range_text(low, high);
    return {[low, high, range](std::string &text) { return take_decimal(text, low, high, range); }, range};
}

CLI::Validator decimal_or_all(unsigned low, unsigned high)
{
    const std::string range = range_text(low, high);
    return {[low, high, range](std::string &text) {
                return text == ALL_MODULES ? std::string{}
                                           : take_decimal(text, low, high, range + ", and not " + ALL_MODULES);
            },
            range + "|" + ALL_MODULES};
}

CLI::Validator seconds_in_ms(unsigned low_ms, unsigned high_ms)
{
    return {[low_ms, high_ms](std::string &text) {
                constexpr std::size_t PLACES = 3;
                const std::size_t point = std::min(text.find('.'), text.size());
                std::string digits = text.substr(0, point);
                std::string places = point < text.size() ? text.substr(point + 1) : "0";
                const bool is_form = !digits.empty() && !places.empty() && places.size() <= PLACES;
                places.resize(PLACES, '0');
                digits += places;
                if (!is_form || !take_decimal(digits, low_ms, high_ms, {}).empty())
                    return "'" + text + "' is no number of seconds from " + std::to_string(low_ms) + " to " +
                           std::to_string(high_ms) + " milliseconds";
                text = digits;
                return std::string{};
            },
            "SECONDS"};
}

namespace
{

// The daemon maps a URI whose path has these to nothing, and would program another image.
bool has_odd_component(const std::string &path)
{
    const std::string closed = path + "/";
    return closed.find("//") != std::string::npos || closed.find("/./") != std::string::npos ||
           closed.find("/../") != std::string::npos;
}

} // namespace

CLI::Validator image_uri()
{
    return {[](std::string &text) {
                constexpr std::string_view FILE_SCHEME = "file://";
                std::string problem;
                const auto path =
                    image_path_of(text.starts_with(FILE_SCHEME) ? text.substr(FILE_SCHEME.size()) : text, problem);
                if (!path)
                    return problem;
                if (has_odd_component(*path))
                    return "'" + text + "' is no plain path: leave out '.', '..' and double slashes";
                std::string uri = std::string(FILE_SCHEME) + *path;
                if (uri.size() > IMAGE_URI_BYTES_MAX)
                    return "the image URI has " + std::to_string(uri.size()) + " bytes; at most " +
                           std::to_string(IMAGE_URI_BYTES_MAX) + " fit into a request";
                text = std::move(uri);
                return std::string{};
            },
            "IMAGE"};
}

CLI::Validator image_on_card(std::size_t path_bytes_max)
{
    return {[path_bytes_max](std::string &text) {
                std::string problem;
                const auto path = image_path_of(text, problem);
                if (!path)
                    return problem;
                if (path->size() > path_bytes_max)
                    return "the image's path has " + std::to_string(path->size()) + " bytes; at most " +
                           std::to_string(path_bytes_max) + " fit into a request";
                text = *path;
                return std::string{};
            },
            "IMAGE"};
}

CLI::Validator result_code()
{
    return {[](std::string &text) {
                std::uint32_t code = 0;
                const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
                const char *begin = text.data() + (hexadecimal ? 2 : 0);
                const char *end = text.data() + text.size();
                const auto [rest, failure] = std::from_chars(begin, end, code, hexadecimal ? 16 : 10);
                if (failure != std::errc{} || rest != end)
                    return "'" + text + "' is no result code, such as 0x40710009";
                text = std::to_string(code);
                return std::string{};
            },
            "CODE"};
}
