#include "flash_programming.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

#include "bios_flash.h"
#include "bios_log.h"
#include "bios_results.h"
#include "file_exists.h"

namespace
{

constexpr std::size_t PATH_BYTES = 256;

constexpr int PLAIN_ATTEMPTS = 4;
constexpr unsigned PLAIN_PAUSE_S = 5;
constexpr int CHIPSET_ATTEMPTS = 5;

// Flash layout of the board family, as ibexpeak_bios_which_flash knows it.
enum flash_variant : std::uint32_t {
    VARIANT_IBEXPEAK = 3,
    VARIANT_IBEXPEAK_QEL = 4,
    VARIANT_TARVIK_A = 5,
};

struct path_copy {
    char text[PATH_BYTES];

    explicit path_copy(const char *path) { (void)std::snprintf(text, sizeof text, "%s", path); }
};

bool flash_left_unprogrammed(std::int32_t result)
{
    return result == bios_signed(BIOS_FLASH_ERR_ERASE) || result == bios_signed(BIOS_FLASH_ERR_PROGRAM);
}

void warn_of_corrupted_bios()
{
    static constexpr const char *LINES[] = {
        "\nERROR: could not program flash",
        "CAUTION: Your BIOS may be in corrupted state",
        "         please try programming it again and DO NOT",
        "         reboot without programming it successfully",
        "         otherwise you have to manually take out the",
        "         flash from the card and program it in a BIOS",
        "         programming station.",
    };
    for (const char *text : LINES)
        BIOS_LOG("%s", text);
}

// BIOS_ERR_IMAGE_NOT_REMOVED when the file could not be removed, else 0.
std::int32_t remove_image(const path_copy &path)
{
    BIOS_LOG("REMOVE - %s", path.text);
    if (::unlink(path.text) == 0)
        return 0;
    BIOS_LOG("ERROR: could not remove - %s, err = %d", path.text, errno);
    return bios_signed(BIOS_ERR_IMAGE_NOT_REMOVED);
}

std::uint32_t flash_selector(flash_variant variant)
{
    return ibexpeak_bios_which_flash("pri", variant) & 0xff;
}

std::int32_t erase_flash(flash_variant variant)
{
    std::int32_t result = 0;
    for (int attempt = 1; attempt <= CHIPSET_ATTEMPTS; ++attempt) {
        result = ibexpeak_bios_flash_erase(flash_selector(variant));
        if (result == 0) {
            BIOS_LOG("Flash erase successful on %d iteration", attempt);
            return 0;
        }
        BIOS_LOG("Flash erase failed, retrying....");
    }
    return result;
}

std::int32_t program_chipset_flash(flash_variant variant, const path_copy &path, std::int32_t handle,
                                   std::uint32_t own_module, std::uint32_t requester_node,
                                   std::uint32_t requester_sap, void *progress_area)
{
    BIOS_LOG("std_ibexpeak_bios_program: my_src = %s", path.text); // one text for all variants
    if (const std::int32_t result = erase_flash(variant); result != 0)
        return result;

    std::int32_t result = 0;
    for (int attempt = 1; attempt <= CHIPSET_ATTEMPTS; ++attempt) {
        result = ibexpeak_program_bios_command_ex(path.text, flash_selector(variant), handle, requester_node,
                                                  requester_sap, own_module, static_cast<std::uint32_t>(attempt),
                                                  progress_area);
        if (result == 0) {
            BIOS_LOG("Flash programming successful on %d iteration", attempt);
            BIOS_LOG("my_src = %s; retcode = %d", path.text, 0);
            return remove_image(path);
        }
        BIOS_LOG("Flash program failed, retrying....");
    }
    return result; // the image file is left for the clean-up operation
}

} // namespace

std::int32_t program_bios_command(std::int32_t handle, std::uint32_t requester_node, std::uint32_t requester_sap,
                                  std::uint32_t own_module, const char *path, std::uint8_t attempt,
                                  void *progress_area, std::uint8_t image_type)
{
    const path_copy copy(path);
    if (!file_exists(copy.text)) {
        BIOS_LOG("ERROR: file %s not found !!", copy.text);
        return bios_signed(BIOS_ERR_NO_IMAGE_FILE);
    }
    const std::int32_t result = program_bios_flash(handle, requester_node, requester_sap, own_module, copy.text,
                                                   attempt, progress_area, image_type);
    if (flash_left_unprogrammed(result))
        warn_of_corrupted_bios();
    if (result == 0) {
        BIOS_LOG("Successful....ret = 0x%x", 0);
        BIOS_LOG("NOTE !! You need to reboot the card for the BIOS to take effect !!");
    }
    return result;
}

std::int32_t std_bios_program(std::int32_t handle, std::uint32_t, const char *path, std::uint32_t own_module,
                              std::uint32_t requester_node, std::uint32_t requester_sap, void *progress_area,
                              std::uint8_t image_type)
{
    const path_copy copy(path);
    std::int32_t result = 0;
    for (int attempt = 1;; ++attempt) {
        result = program_bios_command(handle, requester_node, requester_sap, own_module, copy.text,
                                      static_cast<std::uint8_t>(attempt), progress_area, image_type);
        if (!flash_left_unprogrammed(result) || attempt == PLAIN_ATTEMPTS)
            break;
        (void)::sleep(PLAIN_PAUSE_S);
    }
    // A file that stays behind replaces even a failed programming's result.
    const std::int32_t removal = remove_image(copy);
    return removal != 0 ? removal : result;
}

std::int32_t std_ibexpeak_bios_program(std::int32_t handle, std::uint32_t, const char *path,
                                       std::uint32_t own_module, std::uint32_t requester_node,
                                       std::uint32_t requester_sap, void *progress_area, std::uint8_t)
{
    return program_chipset_flash(VARIANT_IBEXPEAK, path_copy(path), handle, own_module, requester_node,
                                 requester_sap, progress_area);
}

std::int32_t std_ibexpeak_qel_bios_program(std::int32_t handle, std::uint32_t, const char *path,
                                           std::uint32_t own_module, std::uint32_t requester_node,
                                           std::uint32_t requester_sap, void *progress_area, std::uint8_t)
{
    return program_chipset_flash(VARIANT_IBEXPEAK_QEL, path_copy(path), handle, own_module, requester_node,
                                 requester_sap, progress_area);
}

std::int32_t std_ibexpeak_tarvik_a_bios_program(std::int32_t handle, std::uint32_t, const char *path,
                                                std::uint32_t own_module, std::uint32_t requester_node,
                                                std::uint32_t requester_sap, void *progress_area, std::uint8_t)
{
    return program_chipset_flash(VARIANT_TARVIK_A, path_copy(path), handle, own_module, requester_node,
                                 requester_sap, progress_area);
}
