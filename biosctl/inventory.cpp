#include "inventory.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "card_groups.h"
#include "chassis_dir.h"
#include "mts_tools.h"
#include "daemon_node.h"
#include "pfm.h"
#include "sysmgr.h"

namespace
{

constexpr const char *DEFAULT_CHASSIS_DIR = "chassis.d";

bool slot_is_supervisor(unsigned slot)
{
    return is_supervisor_kind(chassis_read_value(chassis_inventory_path(slot, "kind"), 0));
}

bool is_usable(std::string &problem_out)
{
    if (chassis_dir_fd() < 0 || ::faccessat(chassis_dir_fd(), "inventory", F_OK, 0) != 0)
        return false;
    problem_out = chassis_folder_problem(".");
    return problem_out.empty();
}

} // namespace

bool open_chassis(const std::string &dir, std::string &where_out, std::string &problem_out)
{
    if (dir.empty() && chassis_dir_fd() >= 0) {
        const char *path = std::getenv(CHASSIS_ENV_DIR);
        where_out = path != nullptr ? path : "the directory of this card";
        return is_usable(problem_out);
    }
    where_out = dir.empty() ? DEFAULT_CHASSIS_DIR : dir;
    if (chassis_attach(where_out, 0) == 0)
        return is_usable(problem_out);
    if (errno == EACCES)
        problem_out = "it is closed to this user";
    return false;
}

bool module_exists(unsigned module)
{
    return chassis_read_value(chassis_inventory_path(module, "kind"), 0) != 0 ||
           chassis_read_value(chassis_inventory_path(module, "card_id"), 0) != 0;
}

std::vector<unsigned> modules_of_chassis()
{
    std::vector<unsigned> modules;
    for (unsigned module = 1; module <= PFM_MODULE_COUNT; ++module) {
        if (module_exists(module))
            modules.push_back(module);
    }
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
    return chassis_read_value(chassis_inventory_path(module, "card_id"), 0);
}

std::uint32_t node_of_module(unsigned module)
{
    return mts_node_of_slot(module);
}

bool slot_is_active(unsigned slot)
{
    return chassis_read_value(chassis_inventory_path(slot, "sup_state"), 0) == SYSMGR_SUP_STATE_ACTIVE;
}

bool slot_is_standby(unsigned slot)
{
    return chassis_read_value(chassis_inventory_path(slot, "sup_state"), 0) == SYSMGR_SUP_STATE_STANDBY;
}

std::optional<unsigned> active_supervisor()
{
    for (unsigned slot = 1; slot <= PFM_MODULE_COUNT; ++slot) {
        if (slot_is_supervisor(slot) && slot_is_active(slot))
            return slot;
    }
    return std::nullopt;
}

bool slot_programs_one_module_only(unsigned slot)
{
    return is_tarvik_a_supervisor(card_id_of(slot));
}
