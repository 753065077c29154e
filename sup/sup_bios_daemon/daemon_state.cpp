#include "bios_daemon_state.h"

std::uint32_t bios_programming_in_progress;
std::uint32_t bios_cmd_program_in_progress;
std::uint32_t src_version_chk;
std::uint32_t module_lock_held;
char running_version[BIOS_VERSION_TEXT_BYTES];
pfm_module_record_t pfm_info[PFM_MODULE_COUNT];
bios_card_table *self_card_id_tbl;
char *bios_flash_instance;
const char *elem_desc[3] = {"Bios Daemon Errors", "Bios Daemon Warnings", "Bios Daemon Info"};
