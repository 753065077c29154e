// The flashes of a card that has them in memory.
#include "memory_flash.h"

const flash_driver *const card_flash_driver = &memory_flash_driver;
