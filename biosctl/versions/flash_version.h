// The version in a module's flash, as a supervisor's daemon tells it.
#pragma once

#include <string>

// Asks the daemon of serving_slot for one module. The version of the module's first flash; empty when no answer
// came in time or it tells none.
std::string read_flash_version(unsigned serving_slot, unsigned module, unsigned timeout_s);
