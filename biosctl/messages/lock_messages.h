// The message that has a daemon take or free the lock of a module, and its answer.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "bios_messages.h"
#include "client.h"

// MTS_OPC_BIOS_MODULE_LOCK.
//   node  of the daemon of the module that is meant
daemon_request encode_lock_request(bios_module_lock_operation operation, std::uint32_t node);

// The daemon's result; none when this is no answer to that request.
std::optional<std::uint32_t> decode_lock_answer(const request_answer &answer, bios_module_lock_operation operation,
                                                std::uint32_t node);
