#include "inventory.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "chassis_dir.h"
#include "chassis_transport.h"
#include "pfm.h"

namespace
{

constexpr const char *DEFAULT_CHASSIS_DIR = "chassis.d";
constexpr std::uint32_t SUPERVISOR_STATE_ACTIVE = 1;
constexpr std::uint32_t SUPERVISOR_STATE_STANDBY = 2;
constexpr std::array<std::uint32_t, 5> ONE_MODULE_CARD_IDS{183, 282, 314, 316, 318};

bool slot_is_supervisor(unsigned slot)
{
    const std::uint32_t kind = chassis_read_value(chassis_inventory_path(slot, "kind"), 0);
    return kind == PFM_KIND_SUPERVISOR || kind == PFM_KIND_SUPERVISOR_ALTERNATE;
}

bool has_inventory()
{
    return chassis_dir_fd() >= 0 && ::faccessat(chassis_dir_fd(), "inventory", X_OK, 0) == 0;
}

} // namespace

bool open_chassis(const std::string &dir, std::string &where_out)
{
    if (dir.empty() && chassis_dir_fd() >= 0) {
        const char *path = std::getenv(CHASSIS_ENV_DIR);
        where_out = path != nullptr ? path : "the directory of this card";
        return has_inventory();
    }
    where_out = dir.empty() ? DEFAULT_CHASSIS_DIR : dir;
    return chassis_attach(where_out, 0) == 0 && has_inventory();
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

std::uint32_t node_of_module(unsigned module)
{
    return chassis_mts_node_of_slot(module);
}

bool slot_is_active(unsigned slot)
{
    return chassis_read_value(chassis_inventory_path(slot, "sup_state"), 0) == SUPERVISOR_STATE_ACTIVE;
}

bool slot_is_standby(unsigned slot)
{
    return chassis_read_value(chassis_inventory_path(slot, "sup_state"), 0) == SUPERVISOR_STATE_STANDBY;
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
    const std::uint32_t card_id = chassis_read_value(chassis_inventory_path(slot, "card_id"), 0);
    return std::ranges::find(ONE_MODULE_CARD_IDS, card_id) != ONE_MODULE_CARD_IDS.end();
}
