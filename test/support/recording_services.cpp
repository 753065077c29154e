// Inventory, lock, flash, images and command runners of the recording platform.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "bios_flash.h"
#include "cctrl.h"
#include "exec_cmd.h"
#include "image_files.h"
#include "modlock.h"
#include "record_forms.h"
#include "sprom.h"
#include "sysmgr.h"

namespace
{

std::string stream(FILE *file)
{
    if (file == nullptr)
        return "null";
    if (file == stdin)
        return "stdin";
    return file == stdout ? "stdout" : file == stderr ? "stderr" : "a file";
}

// Fills a version buffer of 128 bytes on success, as the version calls do.
std::int32_t found_version(const std::string &call, const std::string &arguments, const std::string &key,
                           char *version_out)
{
    const scripted_result result = platform().called(call, arguments);
    const std::string &version = platform().version_texts[key];
    if (result.value == 0)
        (void)std::snprintf(version_out, BIOS_VERSION_TEXT_BYTES, "%s", version.c_str());
    return status(result);
}

std::int32_t flash_version(const char *call, char *version_out, std::uint32_t flash_select)
{
    return found_version(call, text(flash_select), std::string(call) + ", " + text(flash_select), version_out);
}

std::int32_t image_version(const char *call, const char *path, std::uint32_t offset, char *version_out)
{
    return found_version(call, joined({quoted(path), text(offset)}), call, version_out);
}

std::string progress_use(void *area)
{
    return "area use " + text(platform().progress_area_use(area));
}

} // namespace

// System and platform manager.

std::int32_t sysmgr_cli_supstate_get(std::int32_t handle)
{
    return status(platform().called("sysmgr_cli_supstate_get", text(handle)));
}

std::int32_t sysmgr_is_upgrade_restart()
{
    return status(platform().called("sysmgr_is_upgrade_restart", ""));
}

std::int32_t sysmgr_cli_gsync_file(std::int32_t handle, std::uint32_t kind, const char *source,
                                   const char *destination, std::uint32_t flags)
{
    return status(platform().called("sysmgr_cli_gsync_file", joined({text(handle), text(kind), quoted(source),
                                                                     quoted(destination), text(flags)})));
}

std::int32_t get_platform_info(platform_info_t *info)
{
    const scripted_result result = platform().called("get_platform_info", "");
    if (result.value == 0)
        info->module_num = platform().module_number;
    return status(result);
}

std::int32_t pfm_get_all_modules_in_chassis(std::int32_t handle, pfm_module_record_t *records, std::uint32_t count)
{
    const scripted_result result =
        platform().called("pfm_get_all_modules_in_chassis", joined({text(handle), text(count)}));
    if (result.value >= 0)
        std::copy_n(platform().modules, std::min<std::uint32_t>(count, PFM_MODULE_COUNT), records);
    return status(result);
}

std::int32_t get_card_module_info(card_module_info_t *info)
{
    static constexpr card_module_info_t cleared{};
    const bool was_cleared = std::memcmp(info, &cleared, sizeof cleared) == 0;
    const scripted_result result =
        platform().called("get_card_module_info", was_cleared ? "cleared" : "not cleared");
    if (result.value == 0)
        *info = {0xdead, platform().module_info_card_id, 0xbeef};
    return status(result);
}

// Module lock.

std::int32_t modlock_init()
{
    return status(platform().called("modlock_init", ""));
}

std::int32_t modlock_module_lock(std::uint32_t owner, std::uint32_t node_id, const std::uint32_t request[4])
{
    return status(
        platform().called("modlock_module_lock", joined({text(owner), hexed(node_id), words(request, 4)})));
}

std::int32_t modlock_module_unlock(std::uint32_t owner, std::uint32_t node_id)
{
    return status(platform().called("modlock_module_unlock", joined({text(owner), hexed(node_id)})));
}

// Flash, control register and SPROM.

std::int32_t get_bios_flash_version(char *version_out, std::uint32_t flash_select)
{
    return flash_version("get_bios_flash_version", version_out, flash_select);
}

std::int32_t get_ibexpeak_bios_flash_version(char *version_out, std::uint32_t flash_select)
{
    return flash_version("get_ibexpeak_bios_flash_version", version_out, flash_select);
}

std::int32_t get_ibexpeak_qel_bios_flash_version(char *version_out, std::uint32_t flash_select)
{
    return flash_version("get_ibexpeak_qel_bios_flash_version", version_out, flash_select);
}

std::int32_t get_ibexpeak_tarvik_a_bios_flash_version(char *version_out, std::uint32_t flash_select)
{
    return flash_version("get_ibexpeak_tarvik_a_bios_flash_version", version_out, flash_select);
}

std::int32_t get_bios_src_version(const char *image_path, std::uint32_t phys_offset, char *version_out)
{
    return image_version("get_bios_src_version", image_path, phys_offset, version_out);
}

std::int32_t get_ibexpeak_bios_src_version(const char *image_path, std::uint32_t phys_offset, char *version_out)
{
    return image_version("get_ibexpeak_bios_src_version", image_path, phys_offset, version_out);
}

std::int32_t program_bios_flash(std::int32_t handle, std::uint32_t requester_node, std::uint32_t requester_sap,
                                std::uint32_t own_module, const char *path, std::uint32_t attempt,
                                void *progress_area, std::uint32_t image_type)
{
    return status(
        platform().called("program_bios_flash",
                          joined({text(handle), hexed(requester_node), text(requester_sap), text(own_module),
                                  quoted(path), text(attempt), progress_use(progress_area), text(image_type)})));
}

std::uint32_t ibexpeak_bios_which_flash(const char *name, std::uint32_t variant)
{
    // Bits above the low 8 are set, so that a caller that passes them on is noticed.
    return static_cast<std::uint32_t>(
        platform()
            .called("ibexpeak_bios_which_flash", joined({quoted(name), text(variant)}), {0xab20 + variant})
            .value);
}

std::int32_t ibexpeak_bios_flash_erase(std::uint32_t selector)
{
    return status(platform().called("ibexpeak_bios_flash_erase", hexed(selector)));
}

std::int32_t ibexpeak_program_bios_command_ex(const char *path, std::uint32_t selector, std::int32_t handle,
                                              std::uint32_t requester_node, std::uint32_t requester_sap,
                                              std::uint32_t own_module, std::uint32_t attempt, void *progress_area)
{
    return status(platform().called(
        "ibexpeak_program_bios_command_ex",
        joined({quoted(path), hexed(selector), text(handle), hexed(requester_node), text(requester_sap),
                text(own_module), text(attempt), progress_use(progress_area)})));
}

std::int32_t cctrl_write_reg3(std::uint32_t reg, std::uint32_t value)
{
    return status(platform().called("cctrl_write_reg3", joined({text(reg), text(value)})));
}

std::int32_t sprom_init_dev(std::uint32_t device, std::uint32_t offset, std::uint32_t length,
                            std::uint32_t reserved)
{
    return status(
        platform().called("sprom_init_dev", joined({text(device), text(offset), text(length), text(reserved)})));
}

std::int32_t sprom_cleanup_dev(std::uint32_t device, std::uint32_t offset, std::uint32_t length,
                               std::uint32_t reserved)
{
    return status(
        platform().called("sprom_cleanup_dev", joined({text(device), text(offset), text(length), text(reserved)})));
}

std::int32_t sse_call(std::uint32_t call, void *request)
{
    auto *read = static_cast<sse_sprom_read_request_t *>(request);
    const std::string destination = read->destination == nullptr ? "null" : "destination";
    const scripted_result result = platform().called(
        "sse_call", joined({text(call), text(read->device), text(read->reserved_1), text(read->reserved_2),
                            text(read->offset), text(read->length), text(read->reserved_3), text(read->reserved_4),
                            destination, text(read->reserved_5)}));
    if (result.value < 0)
        return status(result);
    static constexpr std::size_t hw_change_bit_at = 174;
    auto *sprom = static_cast<std::uint8_t *>(read->destination);
    std::fill_n(sprom, read->length, std::uint8_t{0xa5});
    for (std::size_t i = 0; i < 4; ++i)
        sprom[hw_change_bit_at + i] = static_cast<std::uint8_t>(platform().hw_change_bit >> (8 * i));
    return status(result);
}

// Image files and command runners. Commands are not run; a test says with when() what they do.

char *uri_map_targetfs_path_get(const char *uri, char *out_buffer)
{
    (void)platform().called("uri_map_targetfs_path_get", quoted(uri));
    const auto mapped = platform().mapped_uris.find(uri);
    if (mapped == platform().mapped_uris.end())
        return nullptr;
    (void)std::snprintf(out_buffer, URI_MAPPED_PATH_BYTES, "%s", mapped->second.c_str());
    return out_buffer;
}

const char *srg_sw_interim_ver_file_get(const char *path)
{
    static std::string version;
    const scripted_result result = platform().called("srg_sw_interim_ver_file_get", quoted(path));
    version = platform().version_texts["srg_sw_interim_ver_file_get, " + std::string(path)];
    return result.value != 0 || version.empty() ? nullptr : version.c_str();
}

std::int32_t srg_file_clone(void *destination, const char *path, std::uint32_t length)
{
    const scripted_result result = platform().called("srg_file_clone", joined({quoted(path), text(length)}));
    const std::string content = platform().read_file(path).value_or("");
    if (result.value == 0)
        (void)content.copy(static_cast<char *>(destination), length);
    return status(result);
}

std::int32_t exec_cmd_with_io_print(const char *command, FILE *input, FILE *output, FILE *error,
                                    std::uint32_t reserved)
{
    return status(
        platform().called("exec_cmd_with_io_print",
                          joined({quoted(command), stream(input), stream(output), stream(error), text(reserved)})));
}

std::int32_t exec_cmd_with_files_print(const char *command, const char *input, const char *output,
                                       const char *error, std::uint32_t reserved)
{
    return status(
        platform().called("exec_cmd_with_files_print",
                          joined({quoted(command), quoted(input), quoted(output), quoted(error), text(reserved)})));
}
