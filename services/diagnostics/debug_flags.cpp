// The debug categories of a card that are switched on, as tools and the card's own processes read and write them.
#include <algorithm>
#include <cerrno>
#include <sstream>

#include "chassis_diagnostics.h"
#include "chassis_dir.h"
#include "line_file.h"

namespace
{

constexpr std::size_t FLAGS_FILE_LIMIT = 4096;

bool is_flag_name(const std::string &name)
{
    const auto &names = chassis_debug_flag_names();
    return std::find(names.begin(), names.end(), name) != names.end();
}

} // namespace

std::string chassis_debug_flags_path(unsigned slot)
{
    return chassis_slot_path(slot, "debug/flags");
}

const std::vector<std::string> &chassis_debug_flag_names()
{
    static const std::vector<std::string> names{"errors", "warnings", "info"};
    return names;
}

std::vector<std::string> chassis_read_debug_flags(unsigned slot)
{
    std::vector<std::string> flags;
    std::string content;
    if (!chassis_read_file(chassis_debug_flags_path(slot), content, FLAGS_FILE_LIMIT))
        return flags;
    std::istringstream words(content);
    for (std::string word; words >> word;) {
        if (is_flag_name(word) && std::find(flags.begin(), flags.end(), word) == flags.end())
            flags.push_back(word);
    }
    return flags;
}

bool chassis_write_debug_flags(unsigned slot, const std::vector<std::string> &names)
{
    std::string line;
    for (const std::string &name : names) {
        if (!is_flag_name(name)) {
            errno = EINVAL;
            return false;
        }
        line += (line.empty() ? "" : " ") + name;
    }
    return make_slot_folder(slot, "debug") && chassis_write_file(chassis_debug_flags_path(slot), line + "\n");
}
