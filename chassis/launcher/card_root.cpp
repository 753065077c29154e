#include "card_root.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <string_view>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "chassis_dir.h"
#include "launcher_error.h"
#include "machine_mounts.h"
#include "program_libraries.h"

namespace
{

// Folders of this machine that hold programs and libraries. On most systems all but the first are links into it.
constexpr std::array<const char *, 7> MACHINE_FOLDERS = {"usr", "bin", "sbin", "lib", "lib32", "lib64", "libx32"};

// What the daemon and its tools run; the card that has copies gets these.
constexpr std::array<const char *, 15> PROGRAMS = {"sh",     "gunzip", "gzip",  "cp",    "mv",
                                                   "mkdir",  "rm",     "touch", "cat",   "unlink",
                                                   "md5sum", "pgrep",  "ls",    "sleep", "chmod"};

struct device {
    const char *name;
    unsigned major;
    unsigned minor;
};

constexpr std::array<device, 5> DEVICES = {{
    {.name = "null", .major = 1, .minor = 3},
    {.name = "zero", .major = 1, .minor = 5},
    {.name = "full", .major = 1, .minor = 7},
    {.name = "random", .major = 1, .minor = 8},
    {.name = "urandom", .major = 1, .minor = 9},
}};

struct own_folder {
    const char *name;
    mode_t mode;
};

constexpr const char *BOOT_LOADER_PARTITION = "var/lib/bootloader";
constexpr const char *BOOT_LOADER_MOUNT_POINT = "mnt/bootloader";
constexpr const char *BOOT_LOADER = "var/lib/bootloader/srg-sloader.sro";
constexpr const char *KS_IMAGE = "etc/srg-ks.sro";
constexpr const char *OPENED_IMAGES = "tmp/nbitool"; // what nbitool has mounted, or laid there instead

constexpr std::array<own_folder, 17> OWN_FOLDERS = {{
    {.name = "bootflash", .mode = 0755},
    {.name = "mnt/pss", .mode = 0755},
    {.name = BOOT_LOADER_MOUNT_POINT, .mode = 0755},
    {.name = "vesk/bin", .mode = 0755},
    {.name = "vesk/sbin", .mode = 0755},
    {.name = "tmp", .mode = 01777},
    {.name = "var/tmp", .mode = 01777},
    {.name = BOOT_LOADER_PARTITION, .mode = 0755},
    {.name = "etc", .mode = 0755},
    {.name = "dev", .mode = 0755},
    {.name = "proc", .mode = 0555},
    {.name = "run", .mode = 0755},
    {.name = "root", .mode = 0700},
    {.name = "usr", .mode = 0755},
    {.name = "var", .mode = 0755},
    {.name = "mnt", .mode = 0755},
    {.name = "vesk", .mode = 0755},
}};

constexpr const char *PASSWD = "root:x:0:0:root:/root:/bin/sh\n";
constexpr const char *GROUP = "root:x:0:\n";
// The boot-loader partition is a folder of the card; it is not mounted until somebody asks for it. A mount that is
// made in a user namespace has to keep what its file system was mounted with outside, so all of these are told.
constexpr const char *FSTAB = "/var/lib/bootloader /mnt/bootloader none bind,noauto,nosuid,nodev,noexec 0 0\n";
constexpr const char *LIBRARY_CACHE = "/etc/ld.so.cache";

bool is_machine_path(const std::string &path)
{
    return std::any_of(MACHINE_FOLDERS.begin(), MACHINE_FOLDERS.end(), [&](const char *folder) {
        return path.compare(0, std::string_view(folder).size() + 2, "/" + std::string(folder) + "/") == 0;
    });
}

// Place of a library in a tree of copies, in which /lib and its like are links into /usr.
std::string place_of_copy(const std::string &path)
{
    return is_machine_path(path) && path.compare(0, 5, "/usr/") != 0 ? "usr" + path : path.substr(1);
}

bool is_link(const std::string &path)
{
    struct stat found = {};
    return ::lstat(path.c_str(), &found) == 0 && S_ISLNK(found.st_mode);
}

} // namespace

card_root::card_root(unsigned slot)
    : tree_(unique_fd(::openat(chassis_dir_fd(), chassis_slot_path(slot, "root").c_str(),
                               O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)))
{
    if (tree_.fd() < 0)
        throw system_error_of(chassis_slot_path(slot, "root"));
}

void card_root::make_folders() const
{
    for (const own_folder &folder : OWN_FOLDERS)
        tree_.make_folder(folder.name, folder.mode);
    tree_.write_file("etc/passwd", PASSWD, 0644);
    tree_.write_file("etc/group", GROUP, 0644);
    tree_.write_file("etc/fstab", FSTAB, 0644);
    if (::access(LIBRARY_CACHE, R_OK) == 0)
        tree_.copy_file(LIBRARY_CACHE, LIBRARY_CACHE, 0644);
}

void card_root::copy_image_tree(const std::string &image_tree) const
{
    const std::filesystem::path top = image_tree;
    for (const std::filesystem::directory_entry &entry :
         std::filesystem::recursive_directory_iterator(top / "vesk")) {
        const std::string place = std::filesystem::relative(entry.path(), top).string();
        if (entry.is_directory())
            tree_.make_folder(place, 0755);
        else if (entry.is_regular_file())
            tree_.copy_file(entry.path().string(), place, ::access(entry.path().c_str(), X_OK) == 0 ? 0755 : 0644);
        else
            throw launcher_error(entry.path().string() + ": is neither a file nor a folder");
    }
}

void card_root::copy_boot_loader(const std::string &file) const
{
    tree_.copy_file(file, BOOT_LOADER, 0644);
}

void card_root::copy_ks_image(const std::string &file) const
{
    tree_.copy_file(file, KS_IMAGE, 0644);
}

std::string card_root::boot_loader_head(std::size_t bytes) const
{
    return tree_.read_file(BOOT_LOADER, bytes);
}

void card_root::attach_machine(isolation way, unsigned bootflash_mib) const
{
    if (has_namespaces(way))
        mount_machine();
    else
        copy_machine();
    if (bootflash_mib == 0)
        return;
    if (!has_namespaces(way))
        throw launcher_error("a bootflash of limited size needs mounts, which isolation plain is without");
    mount_memory(tree_.open_folder("bootflash").get(), bootflash_mib);
}

void card_root::mount_machine() const
{
    for (const char *name : MACHINE_FOLDERS) {
        const std::string source = "/" + std::string(name);
        if (is_link(source))
            tree_.make_link(name, std::filesystem::read_symlink(source).relative_path().string());
        else if (std::filesystem::is_directory(source))
            mount_from_machine(source, tree_.open_folder(name).get());
    }
    for (const device &each : DEVICES) {
        const std::string place = "dev/" + std::string(each.name);
        mount_from_machine("/" + place, tree_.open_file_place(place).get());
    }
}

void card_root::copy_machine() const
{
    for (const char *name : MACHINE_FOLDERS) {
        if (name == MACHINE_FOLDERS.front())
            continue;
        tree_.make_folder("usr/" + std::string(name), 0755);
        tree_.make_link(name, "usr/" + std::string(name));
    }
    for (const device &each : DEVICES)
        tree_.make_device("dev/" + std::string(each.name), makedev(each.major, each.minor));
    for (const char *name : PROGRAMS) {
        const std::string program = find_program(name);
        if (program.empty())
            std::fprintf(stderr, "chassis: this machine has no program %s, nor has the card\n", name);
        else
            install_program(isolation::plain, program, "usr/bin/" + std::string(name));
    }
}

void card_root::install_program(isolation way, const std::string &program, const std::string &place) const
{
    tree_.copy_file(program, place, 0755);
    for (const std::string &library : libraries_of(program)) {
        if (!has_namespaces(way) || !is_machine_path(library))
            tree_.copy_file(library, place_of_copy(library), 0755);
    }
}

void card_root::end_mounts() const
{
    tree_.remove(OPENED_IMAGES);
    if (tree_.remove_link(BOOT_LOADER_MOUNT_POINT))
        tree_.make_folder(BOOT_LOADER_MOUNT_POINT, 0755);
}

bool card_root::mount_proc() const
{
    const unique_fd folder = tree_.open_folder("proc");
    const std::string place = "/proc/self/fd/" + std::to_string(folder.get());
    return ::mount("proc", place.c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0;
}

void card_root::empty_tmp() const
{
    tree_.empty_folder("tmp");
}
