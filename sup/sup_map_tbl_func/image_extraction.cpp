#include "image_extraction.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <libgen.h>
#include <unistd.h>

#include "bios_log.h"
#include "bios_results.h"
#include "command_line.h"
#include "exec_cmd.h"
#include "file_exists.h"
#include "harmless_path.h"
#include "sysmgr.h"

namespace
{

constexpr std::size_t PATH_BYTES = 256;
constexpr const char *CORE_PLUGIN = "vesk/plugin_img/core_plugin"; // where it lands in the work directory
constexpr const char *NO_OUTPUT = "/dev/null";

constexpr unsigned UNPACK_PAUSE_S = 3;
constexpr unsigned IMAGE_TREE_PAUSE_S = 2;

constexpr std::uint32_t GSYNC_KIND = 129;
constexpr std::uint32_t GSYNC_FLAGS = 1;

struct image_paths {
    char source[PATH_BYTES];
    char temporary[PATH_BYTES];
    char work_directory[PATH_BYTES];

    image_paths(const char *src_path, const char *tmp_path)
    {
        (void)std::snprintf(source, sizeof source, "%s", src_path);
        (void)std::snprintf(temporary, sizeof temporary, "%s", tmp_path);
        char duplicate[PATH_BYTES]; // dirname writes into its argument
        std::memcpy(duplicate, temporary, sizeof duplicate);
        (void)std::snprintf(work_directory, sizeof work_directory, "%s", ::dirname(duplicate));
    }
};

void run_visibly(const command_line &command)
{
    (void)exec_cmd_with_io_print(command.text, stdin, stdout, stderr, 0);
}

void run_silently(const command_line &command)
{
    (void)exec_cmd_with_files_print(command.text, nullptr, NO_OUTPUT, NO_OUTPUT, 0);
}

// Tells whether the work directory could be entered.
bool enter_work_directory(const image_paths &paths)
{
    const command_line make("/bin/mkdir -p %s", paths.work_directory);
    run_visibly(make);
    BIOS_LOG("executing %s", make.text);
    const bool entered = ::chdir(paths.work_directory) == 0;
    BIOS_LOG("dest path=%s", paths.temporary);
    char *current = ::get_current_dir_name();
    BIOS_LOG("current dir=%s", current);
    std::free(current);
    return entered;
}

// What a killed child left behind must not be taken for this request's image. Elsewhere than in the work directory
// the relative names are those of the running system's own image.
void remove_leftovers(const image_paths &paths, bool in_work_directory)
{
    (void)std::remove(command_line("%s.gz", paths.temporary).text);
    if (!in_work_directory)
        return;
    (void)std::remove(CORE_PLUGIN);
    (void)std::remove(command_line(".%s", paths.source).text);
}

void unpack_from_system_image(const char *image_path, const image_paths &paths)
{
    const command_line take_plugin("/vesk/sbin/veskadd -x %s . /vesk/plugin_img/core_plugin", image_path);
    run_silently(take_plugin);
    (void)::sleep(UNPACK_PAUSE_S);
    BIOS_LOG("performing %s", take_plugin.text);

    const command_line take_image("/vesk/sbin/veskadd -x vesk/plugin_img/core_plugin . %s", paths.source);
    run_silently(take_image);
    (void)::sleep(UNPACK_PAUSE_S);
    BIOS_LOG("performing %s", take_image.text);

    // The dot makes the absolute source path relative to the work directory.
    const command_line move("/bin/mv .%s %s.gz", paths.source, paths.temporary);
    run_silently(move);
    BIOS_LOG("performing %s", move.text);

    (void)::unlink(paths.temporary);
    BIOS_LOG(" **REMOVE  **- %s", paths.temporary);

    const command_line decompress("/bin/gunzip %s.gz", paths.temporary);
    run_visibly(decompress);
    (void)::sleep(UNPACK_PAUSE_S);
    BIOS_LOG("performing %s", decompress.text);
}

void unpack_from_image_tree(const image_paths &paths)
{
    const command_line copy("/bin/cp %s %s.gz", paths.source, paths.temporary);
    run_silently(copy);
    BIOS_LOG("performing %s", copy.text);

    (void)::unlink(paths.temporary);
    BIOS_LOG(" **** REMOVE **** - %s", paths.temporary);

    const command_line decompress("/bin/gunzip %s.gz", paths.temporary);
    run_visibly(decompress);
    (void)::sleep(IMAGE_TREE_PAUSE_S);
    BIOS_LOG("performing - %s", decompress.text);
}

// What no shell may see is an image that cannot be found; an older image must not be taken in its place.
void refuse_system_image(const image_paths &paths)
{
    BIOS_LOG("ERROR: image path is not a plain file name, nothing is unpacked");
    (void)::unlink(paths.temporary);
}

void copy_to_standby(std::int32_t handle, const image_paths &paths)
{
    (void)sysmgr_cli_gsync_file(handle, GSYNC_KIND, paths.temporary, paths.temporary, GSYNC_FLAGS);
}

} // namespace

std::int32_t extract_bios_image(std::int32_t handle, std::uint32_t, const char *image_path, const char *src_path,
                                const char *tmp_path)
{
    (void)!std::system("rm -rf /var/tmp/core_plugin");
    const image_paths paths(src_path, tmp_path);
    BIOS_LOG("source path is = %s, %s, %s", image_path != nullptr ? image_path : "(null)", paths.source,
             paths.temporary);
    remove_leftovers(paths, enter_work_directory(paths));
    if (image_path == nullptr)
        unpack_from_image_tree(paths);
    else if (is_harmless_path(image_path))
        unpack_from_system_image(image_path, paths);
    else
        refuse_system_image(paths);
    (void)!::chdir("/");

    if (!file_exists(paths.temporary)) {
        BIOS_LOG("ERROR: SUP BIOS source file (%s) not found", paths.temporary);
        return bios_signed(BIOS_ERR_NO_IMAGE_FILE);
    }
    copy_to_standby(handle, paths);
    return 0;
}

std::int32_t cleanup_temp_files(std::int32_t handle, std::uint32_t, const char *, const char *src_path,
                                const char *tmp_path)
{
    const image_paths paths(src_path, tmp_path);
    (void)::unlink(paths.temporary);
    BIOS_LOG("REMOVE - %s", paths.temporary);

    const command_line remove_tree("/bin/rm -rf %s/vesk", paths.work_directory);
    run_silently(remove_tree);
    BIOS_LOG("REMOVE - %s", remove_tree.text);

    const command_line touch("/bin/touch %s", paths.temporary);
    run_silently(touch);
    BIOS_LOG("cleanup - %s", touch.text);
    copy_to_standby(handle, paths);

    (void)::unlink(paths.temporary);
    BIOS_LOG("REMOVE - %s", paths.temporary);
    return 0;
}
