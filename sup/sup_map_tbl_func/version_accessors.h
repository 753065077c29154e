// The version operations of bios_flash_entry: version text of a flash and of an image file. The std_ functions
// read the primary flash, the alt_ ones the alternate.
#pragma once

#include <cstdint>

extern "C" {

// Flash version; version_out: 128 bytes. Only version_out is used. The platform's status, passed on.
std::int32_t std_get_flash_version_func(std::int32_t handle, std::uint32_t flash_type, std::uint32_t flash_select,
                                        char *version_out);
std::int32_t alt_get_flash_version_func(std::int32_t handle, std::uint32_t flash_type, std::uint32_t flash_select,
                                        char *version_out);
std::int32_t std_get_ibexpeak_flash_version_func(std::int32_t handle, std::uint32_t flash_type,
                                                 std::uint32_t flash_select, char *version_out);
std::int32_t alt_get_ibexpeak_flash_version_func(std::int32_t handle, std::uint32_t flash_type,
                                                 std::uint32_t flash_select, char *version_out);
std::int32_t std_get_ibexpeak_qel_flash_version_func(std::int32_t handle, std::uint32_t flash_type,
                                                     std::uint32_t flash_select, char *version_out);
std::int32_t alt_get_ibexpeak_qel_flash_version_func(std::int32_t handle, std::uint32_t flash_type,
                                                     std::uint32_t flash_select, char *version_out);
std::int32_t std_get_ibexpeak_tarvik_a_flash_version_func(std::int32_t handle, std::uint32_t flash_type,
                                                          std::uint32_t flash_select, char *version_out);
std::int32_t alt_get_ibexpeak_tarvik_a_flash_version_func(std::int32_t handle, std::uint32_t flash_type,
                                                          std::uint32_t flash_select, char *version_out);

// Image version; version_out: 256 bytes. The reader's status, passed on.
//   sw_src_id  image format of the row: 11 x86, 15 x86s, 19 x86n, 18 platform reader, 17 ppc-lc2dc3, other ppc
std::int32_t std_image_src_version_func(const char *image_path, char *version_out, std::uint32_t sw_src_id);
std::int32_t std_get_src_version_func(const char *image_path, char *version_out);
std::int32_t std_image_ibexpeak_src_version_func(const char *image_path, char *version_out,
                                                 std::uint32_t sw_src_id);
std::int32_t std_get_ibexpeak_src_version_func(const char *image_path, char *version_out);

} // extern "C"
