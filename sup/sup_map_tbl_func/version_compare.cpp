#include "version_compare.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bios_flash.h"
#include "bios_log.h"
#include "bios_results.h"
#include "version_accessors.h"

namespace
{

constexpr std::size_t NUMBER_DIGITS = 4;
constexpr std::size_t PATH_BYTES = 256;
constexpr std::size_t IMAGE_VERSION_BYTES = 256;

// Converts the characters from *position up to the delimiter and moves *position behind it.
bool take_number(const char **position, char delimiter, std::int32_t *number)
{
    const char *end = std::strchr(*position, delimiter);
    if (end == nullptr)
        return false;
    char digits[NUMBER_DIGITS + 1] = {};
    std::memcpy(digits, *position, std::min(static_cast<std::size_t>(end - *position), NUMBER_DIGITS));
    *number = static_cast<std::int32_t>(std::strtol(digits, nullptr, 10));
    *position = end + 1;
    return true;
}

std::int32_t read_versions(const char *path, std::uint32_t flash_select, char (&image_version)[IMAGE_VERSION_BYTES],
                           char (&flash_version)[BIOS_VERSION_TEXT_BYTES])
{
    if (const std::int32_t status = std_get_src_version_func(path, image_version); status != 0) {
        return bios_signed(status == BIOS_READER_NO_VERSION ? BIOS_ERR_IMAGE_NO_VERSION
                                                            : BIOS_ERR_IMAGE_VERSION_READ);
    }
    if (const std::int32_t status = get_bios_flash_version(flash_version, flash_select); status != 0) {
        return bios_signed(status == BIOS_READER_NO_VERSION ? BIOS_ERR_FLASH_NO_VERSION
                                                            : BIOS_ERR_FLASH_VERSION_READ);
    }
    return 0;
}

std::int32_t verdict(std::int32_t comparison)
{
    return bios_signed(comparison > 0 ? BIOS_OK : BIOS_NOT_NEEDED);
}

} // namespace

std::int32_t str_to_ver(const char *text, std::int32_t out[3])
{
    const char *position = std::strchr(text, 'v');
    if (position == nullptr)
        return -1;
    ++position;
    const bool complete = take_number(&position, '.', &out[0]) && take_number(&position, '.', &out[1]) &&
                          take_number(&position, '(', &out[2]);
    return complete ? 0 : -1;
}

std::int32_t compare_bios_version(const std::int32_t a[3], const std::int32_t b[3])
{
    for (int i = 0; i < 3; ++i) {
        if (a[i] != b[i])
            return a[i] > b[i] ? 1 : -1;
    }
    return -1; // equal is not newer
}

std::int32_t common_compare_bios_versions(const char *text_a, const char *text_b)
{
    std::int32_t a[3] = {};
    std::int32_t b[3] = {};
    if (str_to_ver(text_a, a) != 0 || str_to_ver(text_b, b) != 0)
        return -1;
    return compare_bios_version(a, b);
}

std::int32_t std_version_compare_func(std::int32_t, std::uint32_t, const char *image_path)
{
    char path[PATH_BYTES];
    (void)std::snprintf(path, sizeof path, "%s", image_path);
    char image_version[IMAGE_VERSION_BYTES] = {};
    char flash_version[BIOS_VERSION_TEXT_BYTES] = {};
    if (const std::int32_t code = read_versions(path, BIOS_FLASH_PRIMARY, image_version, flash_version); code != 0)
        return code;
    const std::int32_t comparison = common_compare_bios_versions(image_version, flash_version);
    BIOS_LOG("pri: img=%s= bios=%s= comp-val=%d\n", image_version, flash_version, comparison);
    return verdict(comparison);
}

std::int32_t alt_version_compare_func(std::int32_t, std::uint32_t, const char *image_path)
{
    char path[PATH_BYTES];
    (void)std::snprintf(path, sizeof path, "%s", image_path);
    char image_version[IMAGE_VERSION_BYTES] = {};
    char flash_version[BIOS_VERSION_TEXT_BYTES] = {};
    if (const std::int32_t code = read_versions(path, BIOS_FLASH_ALTERNATE, image_version, flash_version);
        code != 0)
        return code;
    const std::int32_t comparison = common_compare_bios_versions(image_version, flash_version);
    BIOS_LOG("alt: img=%s= bios=%s= comp-val=%d\n", image_version, flash_version, comparison);
    return verdict(comparison);
}
