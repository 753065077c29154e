// Module locks: taken by the daemon around a programming, and on behalf of peers.
#pragma once

#include <cstdint>

#include "mts.h"

extern "C" {

// Takes the locks for programming a module: the own supervisor's and, when the target is another module, the
// target's. *lock_data is 1 afterwards on success and 0 on failure.
// 0, or BIOS_ERR_BUSY when a lock could not be taken.
std::int32_t bios_daemon_acquire_lock(std::int32_t handle, std::uint32_t my_module_num,
                                      std::uint32_t programming_mod_num, std::uint32_t *lock_data);

// Releases them, unless *lock_data says that none is held. Always 0.
std::int32_t bios_daemon_release_lock(std::int32_t handle, std::uint32_t my_module_num,
                                      std::uint32_t programming_mod_num, std::uint32_t *lock_data);

} // extern "C"

// Serves MTS_OPC_BIOS_MODULE_LOCK: does what the request's body asks and answers. payload is the message's. The
// caller drops the message.
void serve_module_lock(std::int32_t handle, mts_message_t *message, const void *payload);
