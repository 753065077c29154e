#include "debug_view.h"

#include <algorithm>
#include <set>

#include "card_files.h"
#include "card_program.h"
#include "chassis_diagnostics.h"
#include "chassis_dir.h"
#include "followed_file.h"
#include "keeper_lock.h"
#include "launcher_error.h"
#include "standard_output.h"

namespace
{

constexpr const char *ALL_CATEGORIES = "all";

bool is_category(const std::string &name)
{
    const auto &names = chassis_debug_flag_names();
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::string joined(const std::vector<std::string> &words, const char *between)
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : between) + word;
    return text;
}

void require_daemon(unsigned slot)
{
    require_serving_slot(slot);
    if (program_of(slot) != card_program::daemon)
        throw launcher_error("slot " + std::to_string(slot) +
                             ": its card runs a stand-in, which has no categories");
}

std::string description_of(unsigned slot)
{
    const std::vector<std::string> on = chassis_read_debug_flags(slot);
    std::string text = "card " + std::to_string(slot) + ": debug categories on: ";
    text += on.empty() ? "none" : joined(on, ", ");
    return keeper_of(slot) ? text : text + " (the card is down)";
}

} // namespace

std::string debug_word_problem(const std::string &word)
{
    const bool is_switch = !word.empty() && (word.front() == '+' || word.front() == '-');
    const std::string name = is_switch ? word.substr(1) : word;
    if (name != ALL_CATEGORIES && !is_category(name))
        return word + ": no such debug category; there are " + joined(chassis_debug_flag_names(), ", ") + " and " +
               ALL_CATEGORIES;
    return is_switch ? "" : word + ": say +" + word + " to switch it on or -" + word + " to switch it off";
}

std::vector<std::string> switched_categories(const std::vector<std::string> &on_before,
                                             const std::vector<std::string> &words)
{
    std::set<std::string> on(on_before.begin(), on_before.end());
    for (const std::string &word : words) {
        const std::string name = word.substr(1);
        for (const std::string &category : chassis_debug_flag_names()) {
            if (name != category && name != ALL_CATEGORIES)
                continue;
            if (word.front() == '+')
                on.insert(category);
            else
                on.erase(category);
        }
    }
    std::vector<std::string> categories;
    for (const std::string &category : chassis_debug_flag_names()) {
        if (on.contains(category))
            categories.push_back(category);
    }
    return categories;
}

void debug_card(unsigned slot, const std::vector<std::string> &words, bool follow)
{
    require_daemon(slot);
    added_lines output(chassis_slot_path(slot, "debug/output")); // from before the change: it loses no line
    if (!words.empty() &&
        !chassis_write_debug_flags(slot, switched_categories(chassis_read_debug_flags(slot), words)))
        throw system_error_of(chassis_debug_flags_path(slot));
    print_output(description_of(slot) + "\n");
    if (follow)
        output.follow();
}
