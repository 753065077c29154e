// The flash service: version texts of the flashes of this card and of image files.
#include "bios_flash.h"

#include <cstring>

#include "bios_header.h"
#include "bios_results.h"
#include "c_boundary.h"
#include "chassis_dir.h"
#include "flash_device.h"
#include "flash_image.h"
#include "flash_programming_events.h"

static_assert(BIOS_HEADER_TEXT_BYTES == BIOS_VERSION_TEXT_BYTES);

namespace
{

// The header is part of a programmed flash only if no programming was begun before it was read; one that began
// while it was read had set the marker before it changed a byte.
bool read_settled_header(flash_device &flash, std::uint32_t instance, std::uint8_t *header_out,
                         std::int32_t &failure)
{
    failure = BIOS_READER_NO_VERSION;
    if (flash.is_marked()) {
        flash_found_marked(instance);
        return false;
    }
    if (!flash.read(0, header_out, BIOS_HEADER_BYTES)) {
        failure = BIOS_READER_NO_ACCESS;
        return false;
    }
    return !flash.is_marked();
}

std::int32_t header_version(const std::uint8_t *header_bytes, char *version_out)
{
    bios_header header;
    if (!bios_header_read(header_bytes, header))
        return BIOS_READER_NO_VERSION;
    bios_header_text(header, version_out);
    return 0;
}

// The layouts of the board families all have the header at the start of the flash.
std::int32_t flash_version(char *version_out, std::uint32_t flash_select)
{
    std::memset(version_out, 0, BIOS_VERSION_TEXT_BYTES);
    return c_boundary(BIOS_READER_NO_ACCESS, [&]() -> std::int32_t {
        const auto flash = flash_device::open(flash_select, flash_access::read);
        if (!flash)
            return BIOS_READER_NO_ACCESS;
        std::uint8_t header[BIOS_HEADER_BYTES] = {};
        std::int32_t failure = 0;
        if (!read_settled_header(*flash, flash_select, header, failure))
            return failure;
        return header_version(header, version_out);
    });
}

std::int32_t image_version(const char *image_path, std::uint32_t phys_offset, char *version_out)
{
    std::memset(version_out, 0, BIOS_VERSION_TEXT_BYTES);
    return c_boundary(BIOS_READER_NO_ACCESS, [&]() -> std::int32_t {
        const auto image = flash_image::open(image_path);
        if (!image)
            return BIOS_READER_NO_ACCESS;
        if (image->size_bytes() < std::uint64_t{phys_offset} + BIOS_HEADER_BYTES)
            return BIOS_READER_NO_VERSION;
        std::uint8_t header[BIOS_HEADER_BYTES];
        if (!image->read(phys_offset, header, sizeof header))
            return BIOS_READER_NO_ACCESS;
        return header_version(header, version_out);
    });
}

} // namespace

std::int32_t get_bios_flash_version(char *version_out, std::uint32_t flash_select)
{
    return flash_version(version_out, flash_select);
}

std::int32_t get_ibexpeak_bios_flash_version(char *version_out, std::uint32_t flash_select)
{
    return flash_version(version_out, flash_select);
}

std::int32_t get_ibexpeak_qel_bios_flash_version(char *version_out, std::uint32_t flash_select)
{
    return flash_version(version_out, flash_select);
}

std::int32_t get_ibexpeak_tarvik_a_bios_flash_version(char *version_out, std::uint32_t flash_select)
{
    return flash_version(version_out, flash_select);
}

std::int32_t get_bios_src_version(const char *image_path, std::uint32_t phys_offset, char *version_out)
{
    return image_version(image_path, phys_offset, version_out);
}

std::int32_t get_ibexpeak_bios_src_version(const char *image_path, std::uint32_t phys_offset, char *version_out)
{
    return image_version(image_path, phys_offset, version_out);
}
