// Installation of the boot loader. The image is opened by nbitool, which shows its files below a mount point of
// its own; init-system then writes the loader to the boot-loader partition. What the tools print goes to a log
// file. Runs in the daemon's loop: nothing else is served meanwhile.
#include "loader_install.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "bios_log.h"
#include "bios_messages.h"
#include "bios_results.h"
#include "cmi.h"
#include "command_line.h"
#include "exec_cmd.h"
#include "harmless_path.h"
#include "image_files.h"
#include "loader_partition.h"
#include "output_redirection.h"
#include "request_body.h"
#include "text_field.h"

namespace
{

constexpr const char *INSTALL_LOG = "/tmp/install_loader.log";
constexpr const char *NBITOOL_MOUNT_FOLDER = "/tmp/nbitool/mnt";
constexpr const char *LOADER_IN_IMAGE = "/etc/srg-sloader.sro";
constexpr std::size_t NAME_BYTES = 64;
constexpr std::size_t VERSION_BYTES = 256;

// What nbitool calls an opened image.
struct opened_image_names {
    char ram_file_system[NAME_BYTES];
    char mount_point[NAME_BYTES];

    explicit opened_image_names(pid_t pid)
    {
        (void)std::snprintf(ram_file_system, sizeof ram_file_system, "%d_ramfs", static_cast<int>(pid));
        (void)std::snprintf(mount_point, sizeof mount_point, "%d_mntpt", static_cast<int>(pid));
    }
};

const char *command_prefix()
{
    return ::getuid() != 0 ? "sudo " : "";
}

bool open_image(const char *image_path, const opened_image_names &names)
{
    // What no shell may see is an image that cannot be opened.
    if (!is_harmless_path(image_path)) {
        BIOS_LOG("ERROR: image path is not a plain file name, nothing is opened");
        return false;
    }
    const command_line open("%s/vesk/sbin/nbitool open %s %s %s", command_prefix(), image_path,
                            names.ram_file_system, names.mount_point);
    return std::system(open.text) == 0;
}

void close_image(const opened_image_names &names)
{
    const command_line close("%s/vesk/sbin/nbitool close %s %s", command_prefix(), names.ram_file_system,
                             names.mount_point);
    (void)!std::system(close.text);
}

// Copies the version of the opened image's loader; false when there is none.
[[nodiscard]] bool load_version_in_image(const opened_image_names &names, char (&version_out)[VERSION_BYTES])
{
    char loader_file[NAME_BYTES];
    const int length = std::snprintf(loader_file, sizeof loader_file, "%s/%s/%s", NBITOOL_MOUNT_FOLDER,
                                     names.mount_point, LOADER_IN_IMAGE);
    if (length >= static_cast<int>(sizeof loader_file))
        return false;
    const char *version = srg_sw_interim_ver_file_get(loader_file);
    if (version == nullptr)
        return false;
    (void)std::snprintf(version_out, sizeof version_out, "%s", version);
    return true;
}

// Whether the installed loader has this version. false when the partition cannot be mounted.
[[nodiscard]] bool compare_installed_version(const char *version, bool &same_out)
{
    if (!mount_loader_partition())
        return false;
    const char *installed = srg_sw_interim_ver_file_get(INSTALLED_LOADER_FILE);
    unmount_loader_partition();
    same_out = installed != nullptr && std::strcmp(installed, version) == 0;
    return true;
}

std::uint32_t install_from(const opened_image_names &names)
{
    char version[VERSION_BYTES];
    if (!load_version_in_image(names, version))
        return BIOS_LOADER_ERR_NO_VERSION;

    bool same = false;
    if (!compare_installed_version(version, same))
        return BIOS_LOADER_ERR_MOUNT;
    if (same)
        return BIOS_LOADER_SAME_VERSION;

    const command_line install("/vesk/sbin/init-system -b %s", names.mount_point);
    if (exec_cmd_with_io_print(install.text, stdin, stdout, stderr, 0) != 0)
        return BIOS_LOADER_ERR_INSTALL;
    return BIOS_OK;
}

std::uint32_t install_loader(const char *image_path)
{
    output_redirection redirection(INSTALL_LOG);
    const opened_image_names names(::getpid());
    if (!open_image(image_path, names)) {
        // From here on the daemon's output goes on into the log of the installation.
        redirection.keep();
        return BIOS_LOADER_ERR_IMAGE;
    }
    const std::uint32_t result = install_from(names);
    close_image(names);
    redirection.restore();
    return result;
}

} // namespace

std::uint32_t handle_install_loader(daemon_context &context, mts_message_t *message)
{
    context.payload = mts_payload_get(message);
    const auto request = request_body<bios_install_loader_req_t>(context.payload);
    const field_text image_path(request.image_path);
    const std::uint32_t result = install_loader(image_path.text);
    if (request.remove_image.load() != 0)
        (void)std::remove(image_path.text);
    const bios_install_loader_reply_t reply{};
    (void)cmi_response(&reply, sizeof reply, context.handle, message, result);
    return BIOS_OK;
}
