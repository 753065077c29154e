#include "card_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "chassis_dir.h"
#include "unique_fd.h"

namespace
{

// Why an open file cannot be believed; null when it can.
const char *problem_of(int file)
{
    struct stat status {
    };
    if (::fstat(file, &status) != 0)
        return std::strerror(errno);
    if (!S_ISREG(status.st_mode))
        return "is not a regular file";
    if (status.st_uid != ::geteuid() && status.st_uid != 0)
        return "belongs to another user";
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return "other users may write to it";
    return nullptr;
}

// Null, or why it cannot be read.
const char *read_text(int file, std::string &content_out)
{
    content_out.clear();
    char piece[4096];
    for (;;) {
        const ssize_t got = ::read(file, piece, sizeof piece);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return std::strerror(errno);
        if (got == 0)
            break;
        content_out.append(piece, static_cast<std::size_t>(got));
        if (content_out.size() > CARD_FILE_BYTES_MAX)
            return "is too large";
    }
    return content_out.find('\0') == std::string::npos ? nullptr : "is not a text";
}

} // namespace

card_file_state read_card_file(const std::string &name, std::string &content_out, std::string &problem_out)
{
    const std::string path = chassis_slot_path(chassis_own_slot(), name);
    // Not blocking: the name may be that of a pipe.
    const unique_fd file(
        ::openat(chassis_dir_fd(), path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file && errno == ENOENT)
        return card_file_state::absent;
    const char *problem = file ? problem_of(file.get()) : std::strerror(errno);
    if (problem == nullptr)
        problem = read_text(file.get(), content_out);
    if (problem == nullptr)
        return card_file_state::read;
    problem_out = name + ": " + problem;
    return card_file_state::unusable;
}
