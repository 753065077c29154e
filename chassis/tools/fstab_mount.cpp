// fstab_mount: mount and umount of a card that may not mount (isolation plain); it is installed there as both.
//
//   mount [-o OPTIONS] FOLDER    FOLDER, which is empty and stands in /etc/fstab with a folder to be bound to it,
//                                becomes a link to that folder
//   umount FOLDER                becomes an empty folder again
//
// A link cannot be read-only: the options are taken and not heeded.
//
// Exit status, as of the programs that it stands for: 0 done, 1 wrong usage or not in /etc/fstab, 32 failed.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mntent.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr const char *TABLE = "/etc/fstab";
constexpr int EXIT_USAGE = 1;
constexpr int EXIT_FAILED = 32;
constexpr mode_t FOLDER_MODE = 0755;

struct close_table {
    void operator()(FILE *table) const { (void)::endmntent(table); }
};

// The folder that the table has for the mount point.
std::optional<std::string> source_of(const std::string &folder)
{
    const std::unique_ptr<FILE, close_table> table(::setmntent(TABLE, "r"));
    while (const mntent *entry = table ? ::getmntent(table.get()) : nullptr) {
        if (folder == entry->mnt_dir && ::hasmntopt(entry, "bind") != nullptr)
            return entry->mnt_fsname;
    }
    return std::nullopt;
}

bool is_link_to(const std::string &folder, const std::string &source)
{
    std::string target(source.size() + 1, '\0');
    const ssize_t length = ::readlink(folder.c_str(), target.data(), target.size());
    return length == static_cast<ssize_t>(source.size()) && target.compare(0, source.size(), source) == 0;
}

int fail(const char *command, const std::string &folder, const char *reason)
{
    std::fprintf(stderr, "%s: %s: %s.\n", command, folder.c_str(), reason);
    return EXIT_FAILED;
}

int mount_folder(const std::string &folder, const std::string &source)
{
    struct stat status = {};
    if (is_link_to(folder, source))
        return fail("mount", folder, "is mounted already");
    if (::stat(source.c_str(), &status) != 0)
        return fail("mount", folder, ("special device " + source + " does not exist").c_str());
    if (!S_ISDIR(status.st_mode))
        return fail("mount", folder, (source + " is not a folder").c_str());
    if (::rmdir(folder.c_str()) != 0)
        return fail("mount", folder, std::strerror(errno));
    if (::symlink(source.c_str(), folder.c_str()) == 0)
        return EXIT_SUCCESS;
    const int error = errno;
    (void)::mkdir(folder.c_str(), FOLDER_MODE);
    return fail("mount", folder, std::strerror(error));
}

int unmount_folder(const std::string &folder, const std::string &source)
{
    if (!is_link_to(folder, source))
        return fail("umount", folder, "not mounted");
    if (::unlink(folder.c_str()) != 0 || ::mkdir(folder.c_str(), FOLDER_MODE) != 0)
        return fail("umount", folder, std::strerror(errno));
    return EXIT_SUCCESS;
}

std::string last_component(const std::string &path)
{
    return path.substr(path.rfind('/') + 1);
}

} // namespace

int main(int argc, char **argv)
{
    const bool unmount = argc > 0 && last_component(argv[0]) == "umount";
    bool understood = true;
    for (int option = 0; (option = ::getopt(argc, argv, unmount ? "" : "o:")) != -1;)
        understood = understood && option == 'o';
    if (!understood || argc - optind != 1) {
        std::fputs(unmount ? "usage: umount FOLDER\n" : "usage: mount [-o OPTIONS] FOLDER\n", stderr);
        return EXIT_USAGE;
    }
    const std::string folder = argv[optind];
    const std::optional<std::string> source = source_of(folder);
    if (unmount)
        return source ? unmount_folder(folder, *source) : fail("umount", folder, "not mounted");
    if (source)
        return mount_folder(folder, *source);
    std::fprintf(stderr, "mount: %s: can't find in %s.\n", folder.c_str(), TABLE);
    return EXIT_USAGE;
}
