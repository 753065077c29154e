// biosctl lock and unlock: asks a daemon to take or free the lock of a module on the operator's behalf. The
// daemon holds it until it is asked to free it, or ends.
#pragma once

#include <cstdint>
#include <optional>

#include "bios_messages.h"
#include "outcome.h"

struct lock_options {
    bios_module_lock_operation operation = BIOS_MODULE_LOCK_TAKE;
    unsigned module = 0;
    std::optional<unsigned> via;
};

// What the daemon's result word means; a pure function of it.
outcome report_lock(const lock_options &options, unsigned slot, std::uint32_t result);

outcome run_lock(const lock_options &options);
