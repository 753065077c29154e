// One flash of a card, as it lies below the chassis directory in slots/SLOT/flash/primary/ or .../alternate/:
//
//   data          the contents, size_bytes long
//   size_bytes, sector_bytes, page_bytes   geometry, one value each
//   timing        0, or 1: operations take the time of a real part
//   protected     write-protected sectors, one number or one range "first-last" a line
//   faults        faults on demand, see flash_faults.h; absent when there are none
//   violations    what was asked of it that no driver may ask, a line each; absent when there was nothing
//
// Files that every flash of a card has, whatever its driver, are named in flash_folder.h. This file makes flashes
// and names the others; it uses chassis_dir.h only, so that tools of any word size compile it into themselves. The
// flash itself is nor_file.h.
#pragma once

#include <string>

#include "flash_geometry.h"

constexpr const char *FLASH_FILE_DATA = "data";
constexpr const char *FLASH_FILE_SIZE_BYTES = "size_bytes";
constexpr const char *FLASH_FILE_SECTOR_BYTES = "sector_bytes";
constexpr const char *FLASH_FILE_PAGE_BYTES = "page_bytes";
constexpr const char *FLASH_FILE_TIMING = "timing";
constexpr const char *FLASH_FILE_PROTECTED = "protected";
constexpr const char *FLASH_FILE_FAULTS = "faults";
constexpr const char *FLASH_FILE_VIOLATIONS = "violations";

// Makes a flash with its folders. A flash that is there already is left as it is.
//   initial_image  file with the first contents, followed by erased bytes; empty: all erased
// 0, or -1 with errno: EEXIST when the flash is there, EINVAL for the instance or the geometry, EFBIG when the
// image is larger than the flash, or that of the system call that failed. After a failure there is no `data`,
// so that the flash cannot be opened.
[[nodiscard]] int nor_file_create(unsigned slot, unsigned instance, const flash_geometry &geometry,
                                  const std::string &initial_image = {});
