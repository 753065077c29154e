// Process-wide state of the daemon, under the names that platform libraries and debuggers know.
#pragma once

#include <cstdint>

#include "bios_flash.h"
#include "bios_flash_entry.h"
#include "pfm.h"

extern "C" {

extern std::uint32_t bios_programming_in_progress;     // 1 from an accepted programming request to its child's end
extern std::uint32_t bios_cmd_program_in_progress;     // 1 while an external bios_cmd process runs
extern std::uint32_t src_version_chk;                  // set around the read of a source version
extern std::uint32_t module_lock_held;                 // 1 from a peer's lock request to a peer's unlock
extern char running_version[BIOS_VERSION_TEXT_BYTES];  // text of the BIOS that runs
extern pfm_module_record_t pfm_info[PFM_MODULE_COUNT]; // module m at index m - 1
extern bios_card_table *self_card_id_tbl;              // own card's rows; owned for the life of the process
extern char *bios_flash_instance;                      // one version slot of 128 bytes per own row; never freed
extern const char *elem_desc[3];                       // names of the debug categories

} // extern "C"
