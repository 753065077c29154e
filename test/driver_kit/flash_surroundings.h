// What the driver kit needs of a driver's surroundings: flashes to try the driver on. Everything else it does
// through the record. A driver that is to be tested brings an implementation of these.
#pragma once

#include <cstdint>
#include <vector>

#include "flash_driver.h"

extern const flash_driver &tested_flash_driver;

// Makes flash 0 anew: blank, no sector protected, no marker, nobody's. There is no flash 1. The geometry is the
// driver's choice: at least 4 sectors of at least 2 pages.
void make_flash();

// Protects one sector of flash 0. False when the part cannot be protected: what needs it is skipped.
// REQUIRES: the flash is not open.
bool protect_flash_sector(std::uint32_t sector);

// What flash 0 holds, seen by other means than the driver.
std::vector<std::uint8_t> flash_contents();

// Takes away what make_flash has made.
void remove_flash();

// Whether another process sees the same flash, as every real part is seen.
bool flash_is_shared_by_processes();
