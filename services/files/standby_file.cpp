// Placing a file below the private root of another card. The content of that root belongs to the other card, so
// its links are not trusted: the folder of the destination is resolved by the kernel with the root as limit.
#include "standby_file.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "chassis_dir.h"
#include "regular_file.h"
#include "unique_fd.h"
#include "write_all.h"

namespace
{

constexpr mode_t PERMISSION_BITS = 0777;
constexpr std::size_t PIECE_BYTES = std::size_t{64} * 1024;
constexpr int RESOLVE_ATTEMPTS = 100; // the kernel gives up a resolution while others rename folders

int failure(int error)
{
    errno = error;
    return -1;
}

struct target_path {
    std::vector<std::string> folders;
    std::string name;
};

// Splits an absolute path; false when it names no file or climbs.
bool split_path(const std::string &path, target_path &target)
{
    if (path.empty() || path.front() != '/' || path.back() == '/')
        return false;
    std::size_t begin = 0;
    while (begin < path.size()) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string component = path.substr(begin, end - begin);
        begin = end + 1;
        if (component == "..")
            return false;
        if (!component.empty() && component != ".")
            target.folders.push_back(component);
    }
    if (target.folders.empty() || path.ends_with("/."))
        return false;
    target.name = target.folders.back();
    target.folders.pop_back();
    return true;
}

bool has_private_bootflash(unsigned slot)
{
    const std::string mark = chassis_slot_path(slot, "private_bootflash");
    return ::faccessat(chassis_dir_fd(), mark.c_str(), F_OK, 0) == 0;
}

unique_fd resolve_in_root(int root_fd, const std::vector<std::string> &folders)
{
    std::string path = ".";
    for (const std::string &folder : folders)
        path += "/" + folder;
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    long fd = -1;
    for (int attempt = 0; attempt < RESOLVE_ATTEMPTS; ++attempt) {
        fd = ::syscall(SYS_openat2, root_fd, path.c_str(), &how, sizeof how);
        if (fd >= 0 || errno != EAGAIN)
            break;
    }
    return unique_fd(static_cast<int>(fd));
}

// For kernels without openat2: one folder after the other, no link followed.
unique_fd walk_without_links(int root_fd, const std::vector<std::string> &folders)
{
    unique_fd current(::fcntl(root_fd, F_DUPFD_CLOEXEC, 0));
    for (const std::string &folder : folders) {
        if (!current)
            break;
        current.reset(::openat(current.get(), folder.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    return current;
}

unique_fd open_folder(int root_fd, const std::vector<std::string> &folders)
{
    unique_fd folder = resolve_in_root(root_fd, folders);
    // System call filters of containers report calls that they do not know as EPERM.
    if (!folder && (errno == ENOSYS || errno == EPERM))
        folder = walk_without_links(root_fd, folders);
    return folder;
}

bool copy_content(int source, int destination)
{
    std::vector<char> piece(PIECE_BYTES);
    for (;;) {
        const ssize_t got = ::read(source, piece.data(), piece.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0;
        if (!write_all(destination, piece.data(), static_cast<std::size_t>(got)))
            return false;
    }
}

// Unlike the process id alone, never the same for two writers that live in process namespaces of their own.
std::string temporary_name()
{
    timespec now{};
    (void)::clock_gettime(CLOCK_REALTIME, &now);
    char name[64];
    (void)std::snprintf(name, sizeof name, ".sync.%d.%llx.%lx", static_cast<int>(::getpid()),
                        static_cast<unsigned long long>(now.tv_sec), static_cast<unsigned long>(now.tv_nsec));
    return name;
}

int replace_file(int source, mode_t mode, int folder, const std::string &name)
{
    const std::string fresh = temporary_name();
    const unique_fd destination(
        ::openat(folder, fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!destination)
        return -1;
    if (copy_content(source, destination.get()) && ::fchmod(destination.get(), mode & PERMISSION_BITS) == 0 &&
        ::renameat(folder, fresh.c_str(), folder, name.c_str()) == 0)
        return 0;
    const int error = errno;
    (void)::unlinkat(folder, fresh.c_str(), 0);
    return failure(error);
}

// What was to be replaced must not be taken for what should have come: an empty file is refused by whoever
// programs.
void leave_empty(int folder, const std::string &name)
{
    const std::string fresh = temporary_name();
    const unique_fd empty(
        ::openat(folder, fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (empty && ::renameat(folder, fresh.c_str(), folder, name.c_str()) == 0)
        return;
    (void)::unlinkat(folder, fresh.c_str(), 0);
    (void)::unlinkat(folder, name.c_str(), 0);
}

} // namespace

int place_file_in_card_root(unsigned slot, const char *source, const char *destination)
{
    target_path target;
    if (!split_path(destination, target))
        return failure(EINVAL);
    if (!target.folders.empty() && target.folders.front() == "bootflash" && has_private_bootflash(slot))
        return failure(ENOTSUP);

    const unique_fd content = open_regular_file(source);
    struct stat status {
    };
    if (!content || ::fstat(content.get(), &status) != 0)
        return -1;
    const std::string root_path = chassis_slot_path(slot, "root");
    const unique_fd root(::openat(chassis_dir_fd(), root_path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root)
        return -1;
    const unique_fd folder = open_folder(root.get(), target.folders);
    if (!folder)
        return -1;
    if (replace_file(content.get(), status.st_mode, folder.get(), target.name) == 0)
        return 0;
    const int error = errno;
    leave_empty(folder.get(), target.name);
    return failure(error);
}
