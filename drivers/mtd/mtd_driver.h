// The driver of flashes that are MTDs of the kernel (mtd_flash.h), for the flashes of the card that this process
// belongs to.
#pragma once

#include "flash_driver.h"

struct mtd_calls;

// Folder of a slot: the names that the card's MTDs have in the kernel, a file with one line for each flash. A flash
// without a file is one that the card has not.
constexpr const char *MTD_NAMES_FOLDER = "flash_names";
constexpr const char *MTD_NAME_FILES[FLASH_INSTANCE_COUNT] = {"primary", "alternate"};

extern const flash_driver mtd_driver;

// As flash_driver::open, with system calls of the caller's. What keeps a flash from being opened is put into the
// card's syslog, once until something else does.
flash_part *mtd_open(const mtd_calls &calls, unsigned instance, flash_access access);
