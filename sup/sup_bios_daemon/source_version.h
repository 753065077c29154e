// MTS_OPC_BIOS_GET_SRC_BIOS_VERSION: the versions of the images that an upgrade of this card would write.
#pragma once

#include <cstdint>

#include "bios_messages.h"
#include "mts.h"

extern "C" {

// Unpacks the image of every primary flash of this card, reads its version and answers the request; sends progress
// notices on the way. Blocks for several seconds a row.
//   request  the request's body
//   msg      the request, to answer it
// The status that was answered: 0, 12 (no memory), BIOS_ERR_MODULE_INFO, BIOS_ERR_NO_ENTRIES,
// BIOS_ERR_NO_OPERATION, or the code of a row's operation.
std::int32_t bios_return_src_version(std::int32_t handle, const bios_src_version_req *request, mts_message_t *msg);

} // extern "C"
