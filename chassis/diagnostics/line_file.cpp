#include "line_file.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "chassis_dir.h"
#include "unique_fd.h"

namespace
{

std::string time_now()
{
    timespec now{};
    (void)::clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    (void)::gmtime_r(&now.tv_sec, &utc);
    char seconds[40];
    (void)std::strftime(seconds, sizeof seconds, "%Y-%m-%dT%H:%M:%S", &utc);
    char text[64];
    (void)std::snprintf(text, sizeof text, "%s.%06ldZ", seconds, static_cast<long>(now.tv_nsec / 1000));
    return text;
}

// Texts quote fields of messages from other cards: a newline in one must not forge a second line.
std::string one_line(std::string_view text)
{
    while (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    std::string line(text);
    for (char &character : line) {
        const auto code = static_cast<unsigned char>(character);
        if (code < 0x20 || code == 0x7f)
            character = ' ';
    }
    return line;
}

} // namespace

bool make_slot_folder(unsigned slot, const char *name)
{
    const std::string path = chassis_slot_path(slot, name);
    return ::mkdirat(chassis_dir_fd(), path.c_str(), 0755) == 0 || errno == EEXIST;
}

bool append_line(const std::string &path, std::string_view text)
{
    const std::string line = time_now() + " " + one_line(text) + "\n";
    const unique_fd file(
        ::openat(chassis_dir_fd(), path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY | O_CLOEXEC, 0644));
    if (!file)
        return false;
    const ssize_t put = ::write(file.get(), line.data(), line.size());
    if (put >= 0 && static_cast<std::size_t>(put) != line.size())
        errno = EIO;
    return put >= 0 && static_cast<std::size_t>(put) == line.size();
}
