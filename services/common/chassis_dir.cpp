#include "chassis_dir.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "pfm.h"
#include "unique_fd.h"
#include "watched_file.h"
#include "write_all.h"

namespace
{

struct attachment {
    int dir_fd = -1;
    unsigned slot = 0;
    bool known = false;
};

attachment own;

bool parse_number(const char *text, unsigned long long limit, unsigned long long &number)
{
    char *end = nullptr;
    errno = 0;
    number = std::strtoull(text, &end, 0);
    while (*end == '\n' || *end == ' ')
        ++end;
    return errno == 0 && end != text && *end == '\0' && number <= limit;
}

int dir_from_environment()
{
    unsigned long long fd = 0;
    if (const char *text = std::getenv(CHASSIS_ENV_DIR_FD); text != nullptr && parse_number(text, 1 << 20, fd)) {
        // The launcher's descriptor is kept, but programs that the card runs do not get it.
        if (::fcntl(static_cast<int>(fd), F_SETFD, FD_CLOEXEC) == 0)
            return static_cast<int>(fd);
    }
    if (const char *path = std::getenv(CHASSIS_ENV_DIR); path != nullptr)
        return ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    errno = ENOENT;
    return -1;
}

void attach_from_environment()
{
    own.known = true;
    own.dir_fd = dir_from_environment();
    unsigned long long slot = 0;
    if (const char *text = std::getenv(CHASSIS_ENV_SLOT);
        text != nullptr && parse_number(text, PFM_MODULE_COUNT, slot))
        own.slot = static_cast<unsigned>(slot);
}

} // namespace

int chassis_dir_fd()
{
    if (!own.known)
        attach_from_environment();
    if (own.dir_fd < 0)
        errno = ENOENT;
    return own.dir_fd;
}

unsigned chassis_own_slot()
{
    if (!own.known)
        attach_from_environment();
    return own.slot;
}

int chassis_attach(const std::string &path, unsigned slot)
{
    const int dir_fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir_fd < 0)
        return -1;
    if (own.dir_fd >= 0)
        ::close(own.dir_fd);
    own = {dir_fd, slot, true};
    watched_files_restart();
    return 0;
}

std::string chassis_folder_problem(const std::string &path)
{
    struct stat status {
    };
    if (::fstatat(chassis_dir_fd(), path.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return std::strerror(errno);
    if (!S_ISDIR(status.st_mode))
        return "is not a folder";
    if (status.st_uid != ::geteuid())
        return "belongs to user " + std::to_string(status.st_uid) + ", and this is user " +
               std::to_string(::geteuid());
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return "other users may write to it; take that away with: chmod go-w";
    return {};
}

std::string chassis_slot_path(unsigned slot, const std::string &name)
{
    return "slots/" + std::to_string(slot) + "/" + name;
}

std::string chassis_inventory_path(unsigned slot, const std::string &name)
{
    return "inventory/" + std::to_string(slot) + "/" + name;
}

bool chassis_read_file(const std::string &path, std::string &content, std::size_t limit)
{
    const unique_fd file(::openat(chassis_dir_fd(), path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {
    };
    if (!file || ::fstat(file.get(), &status) != 0)
        return false;
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return false;
    }
    content.clear();
    char piece[4096];
    while (content.size() < limit) {
        const ssize_t got = ::read(file.get(), piece, sizeof piece);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        if (got == 0)
            break;
        content.append(piece, static_cast<std::size_t>(got));
    }
    if (content.size() > limit)
        content.resize(limit);
    return true;
}

bool chassis_write_file(const std::string &path, const std::string &content)
{
    const std::string fresh = path + ".new." + std::to_string(::getpid());
    {
        const unique_fd file(::openat(chassis_dir_fd(), fresh.c_str(),
                                      O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                                      0644));
        if (!file)
            return false;
        if (!write_all(file.get(), content.data(), content.size())) {
            const int failure = errno;
            ::unlinkat(chassis_dir_fd(), fresh.c_str(), 0);
            errno = failure;
            return false;
        }
    }
    return ::renameat(chassis_dir_fd(), fresh.c_str(), chassis_dir_fd(), path.c_str()) == 0;
}

std::uint32_t chassis_read_value(const std::string &path, std::uint32_t fallback)
{
    std::string text;
    unsigned long long number = 0;
    if (!chassis_read_file(path, text, 64) || !parse_number(text.c_str(), UINT32_MAX, number))
        return fallback;
    return static_cast<std::uint32_t>(number);
}

bool chassis_write_value(const std::string &path, std::uint32_t value)
{
    return chassis_write_file(path, std::to_string(value) + "\n");
}
