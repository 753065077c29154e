// What biosctl program is asked to do.
#pragma once

#include <optional>

#include "programming_messages.h"

struct program_options {
    programming_request request = {};
    std::optional<unsigned> via = {};       // slot whose daemon is asked; none: the active supervisor
    std::optional<unsigned> timeout_s = {}; // none: as long as the daemon lives
};
