// A flash driver of a few lines: flashes in the memory of this process. They have the manners that the record asks
// for and no others: bits that a program would have to set are set.
#pragma once

#include <set>
#include <vector>

#include "flash_driver.h"

extern const flash_driver memory_flash_driver;

// A flash of the process, that opened parts use; it begins without one.
struct memory_flash {
    flash_geometry geometry = {};
    std::vector<std::uint8_t> bytes = {}; // geometry.size_bytes of them; none: there is no such flash
    std::set<std::uint32_t> protected_sectors = {};
    bool marked = false;
    bool has_writer = false;
};
memory_flash &memory_flash_of(unsigned instance); // below FLASH_INSTANCE_COUNT
