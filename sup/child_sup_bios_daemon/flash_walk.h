// Programming of the local flashes, row by row.
#pragma once

#include <cstdint>

#include "bios_flash_entry.h"

extern "C" {

// Programs every row whose flash_instance is image_type from its extracted image. A row whose image file is
// missing is skipped and clears the result; the first failure ends the walk.
//   sup_state, programming_mod_num  not used
//   own_module                      passed to the program operations
// 0, BIOS_NOT_NEEDED or the code of the operation that failed.
std::int32_t bios_prog_all_bios_flashes(std::int32_t handle, const bios_card_table *entry_list,
                                        std::uint32_t requester_node, std::uint32_t requester_sap,
                                        std::int32_t sup_state, std::uint32_t programming_mod_num,
                                        std::uint32_t own_module, std::uint8_t image_type);

} // extern "C"
