// Platform manager of the chassis: identity and module table out of the inventory, read at each call.
#include "pfm.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <unistd.h>

#include "chassis_dir.h"
#include "inventory_value.h"

namespace
{

// A test writes an errno number to this file of a slot to make its module information unreadable.
constexpr const char *MODULE_INFO_ERROR_FILE = "module_info_error";

int32_t failure(int error)
{
    errno = error;
    return -1;
}

pfm_module_record_t module_record(unsigned slot)
{
    pfm_module_record_t record{};
    record.kind = static_cast<uint8_t>(inventory_value(slot, "kind", UINT8_MAX));
    record.card_id = static_cast<uint16_t>(inventory_value(slot, "card_id", UINT16_MAX));
    return record;
}

} // namespace

int32_t get_platform_info(platform_info_t *info)
{
    if (info == nullptr)
        return failure(EINVAL);
    const unsigned slot = chassis_own_slot();
    if (slot == 0)
        return failure(ENODEV);
    std::memset(info, 0, sizeof *info);
    info->module_num = static_cast<uint8_t>(slot);
    return 0;
}

int32_t pfm_get_all_modules_in_chassis(int32_t, pfm_module_record_t *records, uint32_t count)
try {
    if (records == nullptr || count > PFM_MODULE_COUNT)
        return failure(EINVAL);
    if (::faccessat(chassis_dir_fd(), "inventory", F_OK, 0) != 0)
        return -1;
    for (uint32_t index = 0; index < count; ++index)
        records[index] = module_record(index + 1);
    return 0;
} catch (const std::exception &) {
    return failure(ENOMEM);
}

int32_t get_card_module_info(card_module_info_t *info)
try {
    if (info == nullptr)
        return failure(EINVAL);
    const unsigned slot = chassis_own_slot();
    if (slot == 0 || !inventory_has(slot, "card_id"))
        return failure(ENODEV);
    if (const uint32_t error = inventory_value(slot, MODULE_INFO_ERROR_FILE, INT32_MAX); error != 0)
        return failure(static_cast<int>(error));
    info->card_id = static_cast<uint16_t>(inventory_value(slot, "card_id", UINT16_MAX));
    return 0;
} catch (const std::exception &) {
    return failure(ENOMEM);
}
