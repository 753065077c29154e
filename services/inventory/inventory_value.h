// Live values of the inventory, as the services of this folder read them: a fresh look at each call, so that a
// write to a file takes effect at once. A file without a sensible number counts as 0.
#pragma once

#include <cstdint>

// Value of inventory/SLOT/NAME; 0 when the file is absent, holds no number or one above limit.
std::uint32_t inventory_value(unsigned slot, const char *name, std::uint32_t limit = UINT32_MAX);

// Tells whether the file inventory/SLOT/NAME is there.
bool inventory_has(unsigned slot, const char *name);
