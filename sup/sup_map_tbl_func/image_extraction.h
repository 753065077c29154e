// The extract and clean-up operations of bios_flash_entry: a row's BIOS image as a plain file at its temporary
// path, for as long as one request lasts.
#pragma once

#include <cstdint>

extern "C" {

// Makes the plain image at tmp_path, here and on the standby supervisor.
//   flash_type  not used
//   image_path  system image that carries it, or null for the image tree of the running system
//   src_path    absolute name of the gzip-compressed image in either
// 0, or BIOS_ERR_NO_IMAGE_FILE when no file is there afterwards. Takes several seconds.
std::int32_t extract_bios_image(std::int32_t handle, std::uint32_t flash_type, const char *image_path,
                                const char *src_path, const char *tmp_path);

// Removes the image file and what extraction unpacked; the standby supervisor's copy is replaced by an empty
// file. Always 0.
std::int32_t cleanup_temp_files(std::int32_t handle, std::uint32_t flash_type, const char *image_path,
                                const char *src_path, const char *tmp_path);

} // extern "C"
