// Versions of another module: its own daemon is asked, and its answer is put into the supervisor's form.
#pragma once

#include <cstdint>

#include "mts.h"
#include "pfm.h"

extern "C" {

// Asks a module with MTS_OPC_BIOS_GET_LC_BIOS_VERSION and answers the request with what it said, or with the
// failure answer. Blocks for as long as the module takes.
//   module_num   goes into the answer
//   pfm_records  not used
//   module       selects the node; the same number
// 0 when the versions were answered; the result of the remote request when that failed, or -1.
std::int32_t bios_get_version_info_from_mod(std::int32_t handle, std::uint32_t module_num, mts_message_t *msg,
                                            const pfm_module_record_t *pfm_records, std::uint32_t module);

} // extern "C"
