// One BIOS flash of a card family: which image belongs to it and the operations that read, program and feed it.
// The constant table of all families is bios_flash_entry_tbl; a card works on a copy of its own rows.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

// All operations return a signed 32-bit status, 0 for success. handle is the caller's transport endpoint.

// Reads the version text of the BIOS in the flash. flash_select: 0 primary, 1 alternate (the table's functions
// fix the flash themselves). version_out: at least 128 bytes.
using bios_get_flash_version_op = std::int32_t (*)(std::int32_t handle, std::uint32_t flash_type,
                                                   std::uint32_t flash_select, char *version_out);

// Programs the flash from an extracted image, which is removed. Blocks until done. progress_area: lent to the
// flash service. BIOS_NOT_NEEDED is no failure.
using bios_program_op = std::int32_t (*)(std::int32_t handle, std::uint32_t flash_type, const char *image_path,
                                         std::uint32_t own_module, std::uint32_t requester_node,
                                         std::uint32_t requester_sap, void *progress_area, std::uint8_t image_type);

// Compares an image with the flash: 0 when the image is newer, BIOS_NOT_NEEDED when it is not.
using bios_version_compare_op = std::int32_t (*)(std::int32_t handle, std::uint32_t flash_type,
                                                 const char *image_path);

// Reads the version text of an image file; sw_src_id selects the image format. version_out: 256 bytes.
using bios_image_src_version_op = std::int32_t (*)(const char *image_path, char *version_out,
                                                   std::uint32_t sw_src_id);

// Reads the version text of an image file with the platform's reader.
using bios_get_src_version_op = std::int32_t (*)(const char *image_path, char *version_out);

// Makes the image file at tmp_path from the system image (image_path, or null for the image tree), and removes
// it again.
using bios_image_file_op = std::int32_t (*)(std::int32_t handle, std::uint32_t flash_type, const char *image_path,
                                            const char *src_path, const char *tmp_path);

struct bios_flash_entry {
    std::uint16_t sw_card_id;    // card family
    char sw_id_str[130];         // label, NUL-terminated
    std::uint32_t flash_type;    // flash kind; 0 marks an invalid row
    std::uint32_t sw_src_id;     // image format
    std::uint8_t flash_instance; // 0 is the primary flash
    const char *tmp_path;        // extracted image
    const char *src_path;        // compressed image in the system image tree
    bios_get_flash_version_op get_flash_version;
    bios_program_op program;
    bios_version_compare_op version_compare; // may be null: every image is programmed
    bios_image_src_version_op image_src_version;
    bios_get_src_version_op get_src_version;
    bios_image_file_op extract;
    bios_image_file_op cleanup;
};

// A card's own rows: a 32-bit count and, right behind it, that many whole copies of table rows; one heap block.
struct alignas(bios_flash_entry) bios_card_table {
    std::uint32_t count;

    bios_flash_entry *entries() { return reinterpret_cast<bios_flash_entry *>(this + 1); }
    const bios_flash_entry *entries() const { return reinterpret_cast<const bios_flash_entry *>(this + 1); }
};
static_assert(sizeof(void *) != 4 || (sizeof(bios_flash_entry) == 180 && sizeof(bios_card_table) == 4),
              "layout of the 32-bit target");

} // extern "C"
