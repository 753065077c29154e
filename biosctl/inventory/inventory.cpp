#include "inventory.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "agents.h"
#include "card_groups.h"
#include "chassis_dir.h"
#include "daemon_node.h"
#include "monotonic_clock.h"
#include "place_hints.h"
#include "sysmgr.h"

namespace
{

constexpr const char *DEFAULT_CHASSIS_DIR = "chassis.d"; // of the lab
constexpr const char *CARD_DIR = "/var/lib/bios-daemon"; // on a card
constexpr const char *TRANSPORT_FOLDER = "mts";          // of a chassis of the lab
constexpr std::int64_t KNOWN_FOR_US = 100'000;           // a switchover is to be seen, and a command asks often

bool is_usable(std::string &problem_out)
{
    if (!chassis_is_there())
        return false;
    problem_out = chassis_folder_problem(".");
    return problem_out.empty();
}

// What the agents say, asked for anew from time to time; what was said last when none answers any more. None when
// nothing was ever said.
const std::optional<std::vector<chassis_module>> &told_modules()
{
    static std::optional<std::vector<chassis_module>> modules;
    static std::int64_t asked_at = 0;
    if (asked_at != 0 && monotonic_us() - asked_at < KNOWN_FOR_US)
        return modules;
    if (auto told = ask_for_modules(); told)
        modules = std::move(*told);
    asked_at = monotonic_us();
    return modules;
}

const std::vector<chassis_module> &known_modules()
{
    static const std::vector<chassis_module> none;
    const auto &told = told_modules();
    return told ? *told : none;
}

const chassis_module *find_module(unsigned slot)
{
    const std::vector<chassis_module> &modules = known_modules();
    const auto found = std::ranges::find(modules, slot, &chassis_module::slot);
    return found != modules.end() ? &*found : nullptr;
}

bool has_state(unsigned slot, std::uint32_t sup_state)
{
    const chassis_module *module = find_module(slot);
    return module != nullptr && module->sup_state == sup_state;
}

} // namespace

bool chassis_is_there()
{
    return chassis_dir_fd() >= 0 && (own_surroundings() == surroundings::card ||
                                     ::faccessat(chassis_dir_fd(), TRANSPORT_FOLDER, F_OK, 0) == 0);
}

bool open_chassis(const std::string &dir, std::string &where_out, std::string &problem_out)
{
    const char *named = std::getenv(CHASSIS_ENV_DIR);
    if (dir.empty() && (named != nullptr || std::getenv(CHASSIS_ENV_DIR_FD) != nullptr)) {
        where_out = named != nullptr ? named : "the directory of this card";
        return is_usable(problem_out);
    }
    const char *usual = own_surroundings() == surroundings::lab ? DEFAULT_CHASSIS_DIR : CARD_DIR;
    where_out = dir.empty() ? usual : dir;
    if (chassis_attach(where_out, 0) == 0)
        return is_usable(problem_out);
    if (errno == EACCES)
        problem_out = "it is closed to this user";
    return false;
}

bool any_card_answers()
{
    return told_modules().has_value();
}

bool module_exists(unsigned module)
{
    return find_module(module) != nullptr;
}

std::vector<unsigned> modules_of_chassis()
{
    std::vector<unsigned> modules;
    for (const chassis_module &module : known_modules())
        modules.push_back(module.slot);
    return modules;
}

std::vector<unsigned> modules_named(const std::vector<unsigned> &named)
{
    std::vector<unsigned> modules = named.empty() ? modules_of_chassis() : named;
    std::sort(modules.begin(), modules.end());
    modules.erase(std::unique(modules.begin(), modules.end()), modules.end());
    return modules;
}

std::uint32_t card_id_of(unsigned module)
{
    const chassis_module *known = find_module(module);
    return known != nullptr ? known->card_id : 0;
}

std::uint32_t node_of_module(unsigned module)
{
    const chassis_module *known = find_module(module);
    return daemon_node(module, known != nullptr && is_supervisor_kind(known->kind));
}

bool slot_is_active(unsigned slot)
{
    return has_state(slot, SYSMGR_SUP_STATE_ACTIVE);
}

bool slot_is_standby(unsigned slot)
{
    return has_state(slot, SYSMGR_SUP_STATE_STANDBY);
}

std::optional<unsigned> active_supervisor()
{
    for (const chassis_module &module : known_modules()) {
        if (is_supervisor_kind(module.kind) && module.sup_state == SYSMGR_SUP_STATE_ACTIVE)
            return module.slot;
    }
    return std::nullopt;
}

bool slot_programs_one_module_only(unsigned slot)
{
    return is_tarvik_a_supervisor(card_id_of(slot));
}

std::optional<unsigned> slot_that_unpacks_for(unsigned module, unsigned serving_slot)
{
    const bool unpacks = slot_is_active(serving_slot) && (module == serving_slot || slot_is_standby(module));
    return unpacks ? std::optional(serving_slot) : std::nullopt;
}
