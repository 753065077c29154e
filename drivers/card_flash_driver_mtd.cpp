// The driver of a card's flashes where they are MTDs of the kernel.
#include "mtd_driver.h"

const flash_driver *const card_flash_driver = &mtd_driver;
