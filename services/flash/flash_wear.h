// What was done to a flash over its life: the file `wear`.
#pragma once

#include <cstdint>

struct flash_folder;

struct flash_wear {
    std::uint64_t erases = 0;
    std::uint64_t programs = 0;
    std::uint64_t reads = 0;
};

// Totals of a flash; all 0 when nothing was done yet. folder_path: of flash_folder_path().
[[nodiscard]] flash_wear flash_wear_load(const char *folder_path);

// Adds to the totals and zeroes what was added. Best effort: a chassis that cannot be written to is still read.
void flash_wear_add(const flash_folder &folder, flash_wear &done);
