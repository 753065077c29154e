// init-system: installs the boot loader that nbitool has unpacked.
//
//   init-system -b MNTPT
//
// Mounts the boot-loader partition, /mnt/bootloader, for writing, replaces srg-sloader.sro in it by
// /tmp/nbitool/mnt/MNTPT/etc/srg-sloader.sro, and unmounts it. When anything fails the old loader is there as
// before.
//
// Exit status: 0 the loader is installed, 1 it is not, 64 wrong usage.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <initializer_list>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "image_error.h"
#include "loader_replacement.h"
#include "opened_image.h"

namespace
{

constexpr int EXIT_USAGE = 64;
constexpr const char *PARTITION = "/mnt/bootloader";
constexpr const char *MOUNT = "/bin/mount";
constexpr const char *UNMOUNT = "/bin/umount";

// true when the program ended with exit status 0.
bool run(std::initializer_list<const char *> words)
{
    std::vector<char *> arguments;
    for (const char *word : words)
        arguments.push_back(const_cast<char *>(word)); // posix_spawn changes none
    arguments.push_back(nullptr);
    pid_t child = 0;
    if (::posix_spawn(&child, arguments.front(), nullptr, nullptr, arguments.data(), environ) != 0)
        return false;
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return false;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
}

// The partition while it is mounted.
class mounted_partition
{
public:
    mounted_partition()
    {
        if (!run({MOUNT, "-o", "rw", PARTITION}))
            throw image_error("the boot-loader partition cannot be mounted");
    }
    mounted_partition(const mounted_partition &) = delete;
    mounted_partition &operator=(const mounted_partition &) = delete;
    ~mounted_partition()
    {
        // The loader is on the medium by then, or it failed before.
        if (!run({UNMOUNT, PARTITION}))
            std::fputs("init-system: the boot-loader partition stays mounted\n", stderr);
    }
};

// A signal in the middle would leave the partition mounted.
void hold_signals_back()
{
    sigset_t held;
    sigemptyset(&held);
    for (const int number : {SIGHUP, SIGINT, SIGTERM})
        sigaddset(&held, number);
    (void)::sigprocmask(SIG_BLOCK, &held, nullptr);
}

void install(const std::string &mount_point)
{
    const unique_fd loader = open_loader(NBITOOL_TOP, mount_point);
    hold_signals_back();
    const mounted_partition partition;
    const unique_fd folder(::open(PARTITION, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder)
        throw image_error(std::string(PARTITION) + ": " + std::strerror(errno));
    replace_loader(folder.get(), loader.get());
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3 || std::strcmp(argv[1], "-b") != 0) {
        std::fputs("usage: init-system -b MNTPT\n", stderr);
        return EXIT_USAGE;
    }
    try {
        install(argv[2]);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "init-system: %s\n", failure.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
