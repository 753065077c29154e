// System manager of the chassis: states out of the inventory, files handed to the standby supervisor.
#include "sysmgr.h"

#include <cerrno>
#include <exception>

#include "chassis_dir.h"
#include "daemon_node.h"
#include "inventory_value.h"
#include "pfm.h"
#include "standby_file.h"

namespace
{

// Slot of the other supervisor that is on standby, 0 when there is none.
unsigned standby_slot()
{
    for (unsigned slot = 1; slot <= PFM_MODULE_COUNT; ++slot) {
        if (slot == chassis_own_slot())
            continue;
        if (is_supervisor_kind(inventory_value(slot, "kind")) &&
            inventory_value(slot, "sup_state") == SYSMGR_SUP_STATE_STANDBY)
            return slot;
    }
    return 0;
}

} // namespace

int32_t sysmgr_cli_supstate_get(int32_t)
try {
    return static_cast<int32_t>(inventory_value(chassis_own_slot(), "sup_state", INT32_MAX));
} catch (const std::exception &) {
    return 0; // not active
}

int32_t sysmgr_is_upgrade_restart(void)
try {
    const unsigned slot = chassis_own_slot();
    const bool was_upgraded = inventory_value(slot, "upgrade_restart") != 0;
    return was_upgraded || chassis_read_value(chassis_slot_path(slot, CHASSIS_SOFTWARE_RESTART), 0) != 0 ? 1 : 0;
} catch (const std::exception &) {
    return 0;
}

int32_t sysmgr_cli_gsync_file(int32_t, uint32_t, const char *source, const char *destination, uint32_t)
try {
    if (source == nullptr || destination == nullptr || source[0] != '/') {
        errno = EINVAL;
        return -1;
    }
    const unsigned standby = standby_slot();
    return standby == 0 ? 0 : place_file_in_card_root(standby, source, destination);
} catch (const std::exception &) {
    errno = ENOMEM;
    return -1;
}
