// The driver of flashes that are files (nor_file.h), for the flashes of the card that this process belongs to.
#pragma once

#include "flash_driver.h"

extern const flash_driver nor_file_driver;
