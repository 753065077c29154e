// What the kernel says of an MTD, and the geometry of a flash that follows from it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "flash_geometry.h"

// A stretch of sectors of one size.
struct mtd_region {
    std::uint32_t offset = 0;
    std::uint32_t erase_bytes = 0;
};

struct mtd_description {
    std::uint8_t type = 0; // MTD_NORFLASH and so on
    bool is_writeable = false;
    std::uint64_t size_bytes = 0;
    std::uint32_t erase_bytes = 0;        // of regions of different sectors, the largest one's
    std::uint32_t write_bytes = 0;        // what is written has to begin and end on multiples of it
    std::vector<mtd_region> regions = {}; // empty: sectors are all of one size
};

// Nothing, and a text for a person, when such an MTD is not programmed:
//
// - Type: NOR flash, and what the kernel calls RAM, as which it shows parts of battery-backed memory, disks in the
//   place of flashes and its own stand-ins. Both erase to FLASH_ERASED_BYTE. Of NAND bad blocks would have to be
//   left out, and nobody here keeps account of them.
// - Regions: a part may have small sectors at one end. The largest sector is the unit then, since the kernel erases
//   what is asked for in as many steps as it takes; each region has to begin and end on a multiple of the unit.
// - Pages: the kernel writes as much as it is given, in steps of the part's buffer, and does not say how large that
// is.
//   Long pages fill it and take few calls; in short ones fewer blank bytes are written. 4 KiB, and two pages a
//   sector at least.
[[nodiscard]] std::optional<flash_geometry> mtd_geometry(const mtd_description &mtd, std::string &problem);
