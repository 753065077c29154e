// Programming a flash with an image, whole: what differs is found, erased and written; then the flash is read back
// and compared. The flash is marked as being programmed from before its first change until it was found equal.
#pragma once

#include <cstdint>
#include <functional>

#include "flash_device.h"
#include "flash_image.h"
#include "flash_progress.h"

enum class flash_programming_mode : std::uint8_t {
    erase_and_write, // sectors that differ are erased as needed
    write_only,      // into a flash that was erased before; nothing is erased
};

// Makes the flash equal to the image followed by erased bytes.
//   flash  opened for writing
//   image  not larger than the flash
// 0, or one of the codes of bios_flash.h.
[[nodiscard]] std::int32_t flash_program_image(flash_device &flash, const flash_image &image,
                                               flash_programming_mode mode, flash_progress &progress);

// Erases every sector; the flash stays marked as being programmed. 0, or one of the codes of bios_flash.h.
//   reached  is told before each sector how many percent are behind it
[[nodiscard]] std::int32_t flash_erase_whole(flash_device &flash,
                                             const std::function<void(std::uint32_t percent)> &reached);
