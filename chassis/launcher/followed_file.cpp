#include "followed_file.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>

#include "chassis_dir.h"
#include "launcher_error.h"
#include "printable_text.h"
#include "standard_output.h"
#include "write_all.h"

namespace
{

constexpr std::chrono::milliseconds FOLLOW_INTERVAL{100};

unique_fd open_to_read(const std::string &path)
{
    return unique_fd(::openat(chassis_dir_fd(), path.c_str(), O_RDONLY | O_CLOEXEC));
}

// Prints from where the file stands to its end. false when the reader of standard output has gone.
bool print_rest(const unique_fd &file, const std::string &path)
{
    char piece[16 * 1024];
    for (;;) {
        const ssize_t got = ::read(file.get(), piece, sizeof piece);
        if (got < 0 && errno != EINTR)
            throw system_error_of(path);
        if (got == 0)
            return true;
        if (got > 0)
            make_lines_printable(piece, static_cast<std::size_t>(got));
        if (got <= 0 || write_all(STDOUT_FILENO, piece, static_cast<std::size_t>(got)))
            continue;
        if (errno == EPIPE)
            return false;
        throw_output_error();
    }
}

// Whether the name stands for another file by now; not when there is none.
bool was_replaced(const unique_fd &file, const std::string &path)
{
    struct stat opened = {};
    struct stat named = {};
    if (::fstatat(chassis_dir_fd(), path.c_str(), &named, 0) != 0)
        return false;
    return !file || ::fstat(file.get(), &opened) != 0 || opened.st_dev != named.st_dev ||
           opened.st_ino != named.st_ino;
}

} // namespace

bool print_file(const std::string &path, bool follow)
{
    const unique_fd file = open_to_read(path);
    if (!file)
        return false;
    while (print_rest(file, path) && follow)
        std::this_thread::sleep_for(FOLLOW_INTERVAL);
    return true;
}

added_lines::added_lines(std::string path) : path_(std::move(path)), file_(open_to_read(path_))
{
    if (file_)
        (void)::lseek(file_.get(), 0, SEEK_END);
}

void added_lines::follow()
{
    for (;;) {
        // Looked at before the rest is printed: what was added until the file was replaced is not lost.
        const bool replaced = was_replaced(file_, path_);
        if (file_ && !print_rest(file_, path_))
            return;
        if (replaced)
            file_ = open_to_read(path_);
        else
            std::this_thread::sleep_for(FOLLOW_INTERVAL);
    }
}
