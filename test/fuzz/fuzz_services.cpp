// The services of the fuzzing platform other than the transport.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "bios_flash.h"
#include "cctrl.h"
#include "exec_cmd.h"
#include "fuzz_platform.h"
#include "image_files.h"
#include "modlock.h"
#include "pfm.h"
#include "sprom.h"
#include "sysmgr.h"

namespace
{

constexpr std::uint16_t MODULE_CARD_IDS[] = {90,  106, 109, 107, 183, 282, 222, 182,
                                             271, 272, 314, 316, 318, 0,   999};
constexpr std::uint8_t KIND_LINE_CARD = 2;
constexpr std::size_t HW_CHANGE_BIT_OFFSET = 174;
constexpr std::uint32_t FLASH_CONTROL_REGISTER = 186;
constexpr std::uint32_t CLONE_LIMIT_BYTES = 64 * 1024; // written of a larger copy
constexpr std::size_t REQUEST_URI_BYTES = 228;
constexpr std::int32_t NO_VERSION = -61;
constexpr std::size_t LONG_TEXT_BYTES = 300;

constexpr std::int32_t PROGRAMMING_RESULTS[] = {
    0,          BIOS_FLASH_ERR_PROGRAM, BIOS_FLASH_ERR_ERASE, BIOS_FLASH_ERR_PROTECTED,
    0x40710001, // not needed
};

std::int32_t programming_result()
{
    return PROGRAMMING_RESULTS[platform().decide(std::size(PROGRAMMING_RESULTS))];
}

// A version text of any length that the contract allows; what it does not fill is left as it was.
std::int32_t give_version(char *version_out, bool of_flash)
{
    expect_accessible(version_out, BIOS_VERSION_TEXT_BYTES, "a version has 128 bytes to go to");
    if (platform().version_text) {
        std::snprintf(version_out, BIOS_VERSION_TEXT_BYTES, "%s", platform().version_text(of_flash).c_str());
        return 0;
    }
    switch (platform().decide(4)) {
    case 0:
        std::memcpy(version_out, "  v3.5.0(09/17/12)", sizeof "  v3.5.0(09/17/12)");
        return 0;
    case 1:
        std::memset(version_out, '9', BIOS_VERSION_TEXT_BYTES - 1);
        version_out[BIOS_VERSION_TEXT_BYTES - 1] = '\0';
        return 0;
    case 2:
        version_out[0] = '\0';
        return 0;
    default:
        return NO_VERSION;
    }
}

void expect_text(const char *text, std::size_t limit, const char *promise)
{
    require(text != nullptr && ::strnlen(text, limit) < limit, promise);
}

std::int32_t run_command(const char *command, const char *output)
{
    platform().expect_command(command);
    if (platform().command_run)
        platform().command_run(command, output);
    return platform().fails(ENOENT) ? 256 : 0;
}

} // namespace

// Who this card is.

std::int32_t get_platform_info(platform_info_t *info)
{
    info->module_num = platform().module_num;
    return 0;
}

std::int32_t pfm_get_all_modules_in_chassis(std::int32_t, pfm_module_record_t *records, std::uint32_t count)
{
    expect_accessible(records, count * sizeof *records, "there is room for every module");
    if (platform().fails(EIO))
        return -1;
    for (std::uint32_t i = 0; i < count; ++i) {
        records[i].kind = KIND_LINE_CARD;
        records[i].card_id = MODULE_CARD_IDS[i % std::size(MODULE_CARD_IDS)];
    }
    pfm_module_record_t &own = records[platform().module_num - 1];
    own.kind = PFM_KIND_SUPERVISOR;
    own.card_id = platform().card_id;
    return 0;
}

std::int32_t get_card_module_info(card_module_info_t *info)
{
    if (platform().fails(EIO)) {
        platform().leaving_for_card_id = true;
        return -1;
    }
    info->card_id = platform().card_id;
    return 0;
}

std::int32_t sprom_init_dev(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t)
{
    return 0;
}

std::int32_t sprom_cleanup_dev(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t)
{
    return 0;
}

std::int32_t sse_call(std::uint32_t, void *request)
{
    const auto *read = static_cast<const sse_sprom_read_request_t *>(request);
    expect_accessible(read->destination, read->length, "the SPROM has bytes to go to");
    if (platform().fails(EIO))
        return -1;
    std::memset(read->destination, 0, read->length);
    static_cast<std::uint8_t *>(read->destination)[HW_CHANGE_BIT_OFFSET] =
        static_cast<std::uint8_t>(platform().decide(6));
    return 0;
}

std::int32_t cctrl_write_reg3(std::uint32_t reg, std::uint32_t)
{
    require(reg == FLASH_CONTROL_REGISTER, "the register of the flash selection");
    return platform().fails(EIO) ? -1 : 0;
}

std::int32_t sysmgr_cli_supstate_get(std::int32_t)
{
    return platform().sup_state;
}

std::int32_t sysmgr_is_upgrade_restart()
{
    return static_cast<std::int32_t>(platform().decide(2));
}

std::int32_t sysmgr_cli_gsync_file(std::int32_t, std::uint32_t, const char *source, const char *destination,
                                   std::uint32_t)
{
    require(source[0] == '/' && destination[0] == '/', "a file goes to the standby by its absolute path");
    return platform().fails(EIO) ? -1 : 0;
}

// Locks.

std::int32_t modlock_init()
{
    return 0;
}

std::int32_t modlock_module_lock(std::uint32_t, std::uint32_t node_id, const std::uint32_t[4])
{
    require(node_id <= 0xffff, "a node id has 16 bits");
    return platform().fails(EBUSY) ? -1 : 0;
}

std::int32_t modlock_module_unlock(std::uint32_t, std::uint32_t node_id)
{
    require(node_id <= 0xffff, "a node id has 16 bits");
    return platform().fails(EPERM) ? -1 : 0;
}

// Commands and files.

std::int32_t exec_cmd_with_io_print(const char *command, FILE *, FILE *, FILE *, std::uint32_t)
{
    return run_command(command, nullptr);
}

std::int32_t exec_cmd_with_files_print(const char *command, const char *, const char *output, const char *,
                                       std::uint32_t)
{
    return run_command(command, output);
}

char *uri_map_targetfs_path_get(const char *uri, char *out_buffer)
{
    static std::array<char, URI_MAPPED_PATH_BYTES> own_memory;
    expect_text(uri, REQUEST_URI_BYTES, "a URI is terminated in its field");
    expect_accessible(out_buffer, URI_MAPPED_PATH_BYTES, "a mapped path has 288 bytes to go to");
    switch (platform().decide(4)) {
    case 0: // the path is the URI's own text, whatever is in it
        std::snprintf(out_buffer, URI_MAPPED_PATH_BYTES, "%s", uri);
        return out_buffer;
    case 1:
        std::snprintf(own_memory.data(), own_memory.size(), "/bootflash/%s", uri);
        return own_memory.data();
    case 2: // as long as a path can be
        std::memset(out_buffer, 'p', URI_MAPPED_PATH_BYTES - 1);
        out_buffer[URI_MAPPED_PATH_BYTES - 1] = '\0';
        return out_buffer;
    default:
        return nullptr;
    }
}

const char *srg_sw_interim_ver_file_get(const char *path)
{
    static const std::string LONG_TEXT(LONG_TEXT_BYTES, 'v');
    require(path[0] == '/', "a loader file has an absolute path");
    switch (platform().decide(4)) {
    case 0:
        return "1.8.0";
    case 1:
        return "1.7.3";
    case 2:
        return LONG_TEXT.c_str();
    default:
        return nullptr;
    }
}

std::int32_t srg_file_clone(void *destination, const char *path, std::uint32_t length)
{
    require(path[0] == '/', "a cloned file has an absolute path");
    expect_accessible(destination, length, "a cloned file has its whole length to go to");
    if (platform().fails(ENOENT))
        return ENOENT;
    std::memset(destination, 0xa5, std::min(length, CLONE_LIMIT_BYTES));
    return 0;
}

// The flash.

std::int32_t get_bios_flash_version(char *version_out, std::uint32_t)
{
    return give_version(version_out, true);
}

std::int32_t get_ibexpeak_bios_flash_version(char *version_out, std::uint32_t)
{
    return give_version(version_out, true);
}

std::int32_t get_ibexpeak_qel_bios_flash_version(char *version_out, std::uint32_t)
{
    return give_version(version_out, true);
}

std::int32_t get_ibexpeak_tarvik_a_bios_flash_version(char *version_out, std::uint32_t)
{
    return give_version(version_out, true);
}

std::int32_t get_bios_src_version(const char *, std::uint32_t, char *version_out)
{
    return give_version(version_out, false);
}

std::int32_t get_ibexpeak_bios_src_version(const char *, std::uint32_t, char *version_out)
{
    return give_version(version_out, false);
}

std::int32_t program_bios_flash(std::int32_t, std::uint32_t, std::uint32_t, std::uint32_t, const char *,
                                std::uint32_t, void *progress_area, std::uint32_t image_type)
{
    expect_accessible(progress_area, sizeof(bios_flash_progress_area_t), "a progress area is lent");
    require(image_type <= 0xff, "an image type has 8 bits");
    return programming_result();
}

std::uint32_t ibexpeak_bios_which_flash(const char *, std::uint32_t variant)
{
    return variant;
}

std::int32_t ibexpeak_bios_flash_erase(std::uint32_t selector)
{
    require(selector <= 0xff, "a selector has 8 bits");
    return platform().fails(EIO) ? BIOS_FLASH_ERR_ERASE : 0;
}

std::int32_t ibexpeak_program_bios_command_ex(const char *, std::uint32_t selector, std::int32_t, std::uint32_t,
                                              std::uint32_t, std::uint32_t, std::uint32_t, void *progress_area)
{
    require(selector <= 0xff, "a selector has 8 bits");
    expect_accessible(progress_area, sizeof(bios_flash_progress_area_t), "a progress area is lent");
    return programming_result();
}
