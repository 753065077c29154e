#include "flash_walk.h"

#include <cstdio>

#include "bios_flash.h"
#include "bios_log.h"
#include "bios_results.h"
#include "file_exists.h"

namespace
{

constexpr std::size_t PATH_BYTES = 256;

bool is_failure(std::int32_t result)
{
    return result != 0 && result != bios_signed(BIOS_NOT_NEEDED);
}

} // namespace

std::int32_t bios_prog_all_bios_flashes(std::int32_t handle, const bios_card_table *entry_list,
                                        std::uint32_t requester_node, std::uint32_t requester_sap, std::int32_t,
                                        std::uint32_t, std::uint32_t own_module, std::uint8_t image_type)
{
    std::int32_t result = 0;
    bios_flash_progress_area_t progress_area = {};
    for (std::uint32_t k = 0; k < entry_list->count; ++k) {
        const bios_flash_entry &row = entry_list->entries()[k];
        if (row.flash_instance != image_type)
            continue;
        BIOS_LOG("%s:%d: for biosid=%d 0x%x", __func__, __LINE__, static_cast<int>(k), row.flash_type);

        char path[PATH_BYTES];
        (void)std::snprintf(path, sizeof path, "%s", row.tmp_path);
        if (!file_exists(path)) {
            BIOS_LOG("ERROR: SUP BIOS source file (%s) not found .. skipping", path);
            result = 0; // a missing image is no failure, and clears an earlier row's result
            continue;
        }

        result = row.version_compare != nullptr ? row.version_compare(handle, row.flash_type, path) : 0;
        BIOS_LOG(" Version comparison result 0x%x", static_cast<unsigned>(result));
        if (is_failure(result))
            return result;
        if (result == bios_signed(BIOS_NOT_NEEDED))
            continue;

        result = row.program(handle, row.flash_type, path, own_module, requester_node, requester_sap,
                             &progress_area, image_type);
        BIOS_LOG(" programming result 0x%x", static_cast<unsigned>(result));
        if (is_failure(result))
            return result;
    }
    return result;
}
