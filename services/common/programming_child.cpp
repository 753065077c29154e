#include "programming_child.h"

#include <charconv>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "c_boundary.h"
#include "chassis_dir.h"
#include "line_file.h"
#include "unique_fd.h"

namespace
{

constexpr const char *FOLDER = "locks";
constexpr const char *FILE_NAME = "locks/programming";
constexpr off_t CHILDREN_MAX = 64; // of daemons that were started one after the other
constexpr std::size_t LINE_BYTES = 11;

struct flock bytes(off_t first, off_t count)
{
    struct flock region {
    };
    region.l_type = F_WRLCK;
    region.l_whence = SEEK_SET;
    region.l_start = first;
    region.l_len = count;
    return region;
}

unique_fd open_marks(unsigned slot, int flags)
{
    return unique_fd(::openat(chassis_dir_fd(), chassis_slot_path(slot, FILE_NAME).c_str(),
                              flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
}

void take_mark(unsigned slot)
{
    if (!make_slot_folder(slot, FOLDER))
        return;
    unique_fd file = open_marks(slot, O_RDWR | O_CREAT);
    for (off_t place = 0; file && place < CHILDREN_MAX; ++place) {
        const off_t offset = place * static_cast<off_t>(LINE_BYTES);
        const struct flock own = bytes(offset, 1);
        if (::fcntl(file.get(), F_SETLK, &own) != 0)
            continue;
        std::string line = std::to_string(::getpid());
        line.resize(LINE_BYTES - 1, ' ');
        (void)!::pwrite(file.get(), (line + "\n").c_str(), LINE_BYTES, offset); // on a full disk it has no id
        (void)file.release(); // the lock lasts as long as the process
        return;
    }
}

std::uint32_t id_in_line(int file, off_t offset)
{
    char line[LINE_BYTES] = {};
    std::uint32_t pid = 0;
    if (::pread(file, line, sizeof line, offset) == static_cast<ssize_t>(sizeof line))
        (void)std::from_chars(line, line + sizeof line, pid);
    return pid;
}

} // namespace

void programming_child_mark() noexcept
{
    best_effort([] {
        if (const unsigned slot = chassis_own_slot(); slot != 0)
            take_mark(slot);
    });
}

bool programming_child_lives(unsigned slot)
{
    return programming_child_pid(slot).has_value();
}

std::optional<std::uint32_t> programming_child_pid(unsigned slot)
{
    using pid = std::optional<std::uint32_t>;
    return c_boundary(pid(), [slot]() -> pid {
        const unique_fd file = open_marks(slot, O_RDONLY);
        struct flock found = bytes(0, 0);
        if (!file || ::fcntl(file.get(), F_GETLK, &found) != 0 || found.l_type == F_UNLCK)
            return std::nullopt;
        return id_in_line(file.get(), found.l_start);
    });
}
