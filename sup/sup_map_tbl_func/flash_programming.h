// The program operations of bios_flash_entry: they write an extracted image into the local flash and remove the
// image file. Run in the programming child.
#pragma once

#include <cstdint>

extern "C" {

// One attempt of the plain x86 path: writes the image and prints the corrupted-BIOS warning when the flash was
// left unprogrammed. BIOS_ERR_NO_IMAGE_FILE when the file does not exist, else the flash service's code.
std::int32_t program_bios_command(std::int32_t handle, std::uint32_t requester_node, std::uint32_t requester_sap,
                                  std::uint32_t own_module, const char *path, std::uint8_t attempt,
                                  void *progress_area, std::uint8_t image_type);

// Plain x86 row: at most four attempts, five seconds apart. The image file is removed whatever the outcome.
std::int32_t std_bios_program(std::int32_t handle, std::uint32_t flash_type, const char *path,
                              std::uint32_t own_module, std::uint32_t requester_node, std::uint32_t requester_sap,
                              void *progress_area, std::uint8_t image_type);

// Boards with an ibexpeak chipset: at most five attempts to erase, then at most five to program. The image file
// is removed after success only.
std::int32_t std_ibexpeak_bios_program(std::int32_t handle, std::uint32_t flash_type, const char *path,
                                       std::uint32_t own_module, std::uint32_t requester_node,
                                       std::uint32_t requester_sap, void *progress_area, std::uint8_t image_type);
std::int32_t std_ibexpeak_qel_bios_program(std::int32_t handle, std::uint32_t flash_type, const char *path,
                                           std::uint32_t own_module, std::uint32_t requester_node,
                                           std::uint32_t requester_sap, void *progress_area,
                                           std::uint8_t image_type);
std::int32_t std_ibexpeak_tarvik_a_bios_program(std::int32_t handle, std::uint32_t flash_type, const char *path,
                                                std::uint32_t own_module, std::uint32_t requester_node,
                                                std::uint32_t requester_sap, void *progress_area,
                                                std::uint8_t image_type);

} // extern "C"
