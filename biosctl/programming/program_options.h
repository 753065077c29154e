// What biosctl program is asked to do.
#pragma once

#include <cstdint>
#include <optional>

#include "programming_messages.h"

struct program_options {
    programming_request request = {};
    std::uint32_t forced = 0;               // bits of bios_force
    bool dry_run = false;                   // say what would happen, and change nothing
    std::optional<unsigned> via = {};       // slot whose daemon is asked; none: the active supervisor
    std::optional<unsigned> timeout_s = {}; // none: as long as the daemon lives
};
