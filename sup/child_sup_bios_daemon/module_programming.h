// Programming of another module: its own daemon does it and reports back.
#pragma once

#include <cstdint>

#include "bios_messages.h"
#include "pfm.h"

extern "C" {

// Forwards a programming request to the daemon of the module that it names and waits for its end.
//   pfm_records  not used
// The status that the module reported, BIOS_ERR_NOT_SENT or BIOS_ERR_NO_COMPLETION.
std::int32_t bios_prog_in_modules(std::int32_t handle, const pfm_module_record_t *pfm_records,
                                  const bios_programming_req_t *request_body, std::uint32_t requester_node,
                                  std::uint32_t requester_sap);

// Waits for MTS_OPC_BIOS_PROGRAMMING_DONE at an endpoint and relays progress messages to the requester.
// The status that the message carries, or BIOS_ERR_NO_COMPLETION after 1801 receive time-outs.
std::int32_t wait_for_completion(std::int32_t handle, std::uint32_t requester_node, std::uint32_t requester_sap);

} // extern "C"
