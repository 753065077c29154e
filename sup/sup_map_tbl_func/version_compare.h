// Decides whether an image is newer than what a flash holds. A version text has the form
// v<major>.<minor>.<patch>(<date>); only the three numbers count.
#pragma once

#include <cstdint>

extern "C" {

// Parses a version text. 0 with the three numbers in out, or -1 for a malformed text (out then undefined).
// Of a number longer than 4 digits the first 4 count.
std::int32_t str_to_ver(const char *text, std::int32_t out[3]);

// 1 when a is newer, -1 when it is older or equal.
std::int32_t compare_bios_version(const std::int32_t a[3], const std::int32_t b[3]);

// 1 when a is newer, -1 when it is older or equal or when either text is malformed.
std::int32_t common_compare_bios_versions(const char *text_a, const char *text_b);

// Compare an image file with the primary (std_) or the alternate (alt_) flash.
// 0                            the image is newer
// BIOS_NOT_NEEDED              it is not, or a text is malformed
// BIOS_ERR_IMAGE_NO_VERSION    no version in the image; BIOS_ERR_IMAGE_VERSION_READ: it could not be read
// BIOS_ERR_FLASH_NO_VERSION    no version in the flash; BIOS_ERR_FLASH_VERSION_READ: it could not be read
std::int32_t std_version_compare_func(std::int32_t handle, std::uint32_t flash_type, const char *image_path);
std::int32_t alt_version_compare_func(std::int32_t handle, std::uint32_t flash_type, const char *image_path);

} // extern "C"
