#include "line_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "chassis_dir.h"
#include "printable_text.h"
#include "unique_fd.h"
#include "utc_time.h"

namespace
{

// Texts quote fields of messages from other cards: a newline in one must not forge a second line.
std::string one_line(std::string_view text)
{
    while (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    return printable_text(text, ' ');
}

unique_fd open_to_append(const std::string &path)
{
    return unique_fd(::openat(chassis_dir_fd(), path.c_str(),
                              O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644));
}

bool has_room(const unique_fd &file, std::size_t bytes)
{
    struct stat status {
    };
    return ::fstat(file.get(), &status) != 0 ||
           static_cast<std::uint64_t>(status.st_size) + bytes <= LINE_FILE_LIMIT_BYTES;
}

bool is_file_at(const std::string &path, int file)
{
    struct stat opened {
    };
    struct stat named {
    };
    return ::fstat(file, &opened) == 0 && ::fstatat(chassis_dir_fd(), path.c_str(), &named, 0) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

} // namespace

bool make_slot_folder(unsigned slot, const char *name)
{
    const std::string path = chassis_slot_path(slot, name);
    return ::mkdirat(chassis_dir_fd(), path.c_str(), 0700) == 0 || errno == EEXIST;
}

void turn_over_line_file(const std::string &path, int full_fd)
{
    if (::flock(full_fd, LOCK_EX | LOCK_NB) == 0 && is_file_at(path, full_fd))
        (void)::renameat(chassis_dir_fd(), path.c_str(), chassis_dir_fd(), (path + ".1").c_str());
}

bool append_line(const std::string &path, std::string_view text)
{
    const std::string line = utc_now_microseconds() + " " + one_line(text) + "\n";
    unique_fd file = open_to_append(path);
    if (file && !has_room(file, line.size())) {
        turn_over_line_file(path, file.get());
        file = open_to_append(path); // the full one still when it could not be turned over: no line is lost
    }
    if (!file)
        return false;
    const ssize_t put = ::write(file.get(), line.data(), line.size());
    if (put >= 0 && static_cast<std::size_t>(put) != line.size())
        errno = EIO;
    return put >= 0 && static_cast<std::size_t>(put) == line.size();
}
