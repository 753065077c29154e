#include "version_accessors.h"

#include "bios_flash.h"
#include "bios_log.h"
#include "ppc_version.h"
#include "x86_version.h"

namespace
{

// Line number by which the field's log readers know the message.
constexpr int LINE_IMAGE_SRC_VERSION = 76;

enum image_format : std::uint32_t {
    IMAGE_X86 = 11,
    IMAGE_X86S = 15,
    IMAGE_PPC_LC2DC3 = 17,
    IMAGE_PLATFORM_READER = 18,
    IMAGE_X86N = 19,
};

constexpr std::uint32_t WHOLE_FILE = 0;

std::int32_t read_image_version(const char *image_path, char *version_out, std::uint32_t sw_src_id)
{
    switch (sw_src_id) {
    case IMAGE_X86:
        return get_x86_bios_version(image_path, WHOLE_FILE, version_out);
    case IMAGE_X86S:
        return get_x86s_bios_version(image_path, WHOLE_FILE, version_out);
    case IMAGE_X86N:
        return get_x86n_bios_version(image_path, WHOLE_FILE, version_out);
    case IMAGE_PLATFORM_READER:
        return get_bios_src_version(image_path, WHOLE_FILE, version_out);
    case IMAGE_PPC_LC2DC3:
        return get_ppc_lc2dc3_bios_version(image_path, WHOLE_FILE, version_out);
    default:
        return get_ppc_bios_version(image_path, WHOLE_FILE, version_out);
    }
}

} // namespace

std::int32_t std_get_flash_version_func(std::int32_t, std::uint32_t, std::uint32_t, char *version_out)
{
    return get_bios_flash_version(version_out, BIOS_FLASH_PRIMARY);
}

std::int32_t alt_get_flash_version_func(std::int32_t, std::uint32_t, std::uint32_t, char *version_out)
{
    return get_bios_flash_version(version_out, BIOS_FLASH_ALTERNATE);
}

std::int32_t std_get_ibexpeak_flash_version_func(std::int32_t, std::uint32_t, std::uint32_t, char *version_out)
{
    return get_ibexpeak_bios_flash_version(version_out, BIOS_FLASH_PRIMARY);
}

std::int32_t alt_get_ibexpeak_flash_version_func(std::int32_t, std::uint32_t, std::uint32_t, char *version_out)
{
    return get_ibexpeak_bios_flash_version(version_out, BIOS_FLASH_ALTERNATE);
}

std::int32_t std_get_ibexpeak_qel_flash_version_func(std::int32_t, std::uint32_t, std::uint32_t, char *version_out)
{
    return get_ibexpeak_qel_bios_flash_version(version_out, BIOS_FLASH_PRIMARY);
}

std::int32_t alt_get_ibexpeak_qel_flash_version_func(std::int32_t, std::uint32_t, std::uint32_t, char *version_out)
{
    return get_ibexpeak_qel_bios_flash_version(version_out, BIOS_FLASH_ALTERNATE);
}

std::int32_t std_get_ibexpeak_tarvik_a_flash_version_func(std::int32_t, std::uint32_t, std::uint32_t,
                                                          char *version_out)
{
    return get_ibexpeak_tarvik_a_bios_flash_version(version_out, BIOS_FLASH_PRIMARY);
}

std::int32_t alt_get_ibexpeak_tarvik_a_flash_version_func(std::int32_t, std::uint32_t, std::uint32_t,
                                                          char *version_out)
{
    return get_ibexpeak_tarvik_a_bios_flash_version(version_out, BIOS_FLASH_ALTERNATE);
}

std::int32_t std_image_src_version_func(const char *image_path, char *version_out, std::uint32_t sw_src_id)
{
    BIOS_LOG("%s:%d:\n", "std_image_src_version_func", LINE_IMAGE_SRC_VERSION);
    const std::int32_t status = read_image_version(image_path, version_out, sw_src_id);
    BIOS_LOG(" bios flash version = %s\n", version_out); // says flash for an image, and stays so
    return status;
}

std::int32_t std_get_src_version_func(const char *image_path, char *version_out)
{
    const std::int32_t status = get_bios_src_version(image_path, WHOLE_FILE, version_out);
    BIOS_LOG(" bios image src version = %s\n", version_out);
    return status;
}

std::int32_t std_image_ibexpeak_src_version_func(const char *image_path, char *version_out, std::uint32_t)
{
    return get_ibexpeak_bios_src_version(image_path, WHOLE_FILE, version_out);
}

std::int32_t std_get_ibexpeak_src_version_func(const char *image_path, char *version_out)
{
    return get_ibexpeak_bios_src_version(image_path, WHOLE_FILE, version_out);
}
