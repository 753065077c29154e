// The driver of a card's flashes.
#include "nor_file_driver.h"

const flash_driver *const card_flash_driver = &nor_file_driver;
