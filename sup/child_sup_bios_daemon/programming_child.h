// The programming child: does one programming request from its image to its result.
#pragma once

#include <cstdint>

#include "bios_messages.h"

extern "C" {

// Runs in the forked child, with a transport endpoint of its own; blocks until the request is done.
//   handle               the child's endpoint
//   requester_node, _sap where progress messages go
//   request_body         the request; forwarded to another module as it stands
//   sup_state            of this supervisor; 1 is the active one
//   image_path           local path of the system image, or null for the image tree
//   programming_mod_num  module to program, my_module_num the own one
//   image_type           flash instance of the rows meant
// 0, BIOS_ERR_CARD_ID, BIOS_ERR_NO_ENTRIES, BIOS_ERR_NO_OPERATION or the code of the operation that failed. The
// child exits with the low byte.
std::int32_t bios_daemon_child_process(std::int32_t handle, std::uint32_t requester_node,
                                       std::uint32_t requester_sap, const bios_programming_req_t *request_body,
                                       std::int32_t sup_state, const char *image_path,
                                       std::uint32_t programming_mod_num, std::uint32_t my_module_num,
                                       std::uint8_t image_type);

} // extern "C"
