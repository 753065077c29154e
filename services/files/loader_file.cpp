#include "loader_file.h"

#include <algorithm>

#include "printable_text.h"

namespace
{

constexpr std::string_view TAG = "$$SRG-LOADER-VERSION: ";
constexpr std::string_view END = "$$";

} // namespace

std::string_view loader_version_in(std::string_view head)
{
    head = head.substr(0, LOADER_HEAD_BYTES);
    const std::size_t tag = head.find(TAG);
    if (tag == std::string_view::npos)
        return {};
    head.remove_prefix(tag + TAG.size());
    const std::size_t end = head.find(END);
    if (end == std::string_view::npos || end > LOADER_VERSION_CHARACTERS)
        return {};
    const std::string_view text = head.substr(0, end);
    return std::all_of(text.begin(), text.end(), is_printable) ? text : std::string_view();
}

std::string loader_version_tag(const std::string &version)
{
    std::string tag = std::string(TAG) + version + std::string(END);
    return !version.empty() && loader_version_in(tag) == version ? tag : std::string();
}
