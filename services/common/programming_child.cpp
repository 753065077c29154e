#include "programming_child.h"

#include <fcntl.h>

#include "c_boundary.h"
#include "chassis_dir.h"
#include "line_file.h"
#include "unique_fd.h"

namespace
{

constexpr const char *FOLDER = "locks";
constexpr const char *FILE_NAME = "locks/programming";
constexpr off_t CHILDREN_MAX = 64; // of daemons that were started one after the other

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
        const struct flock own = bytes(place, 1);
        if (::fcntl(file.get(), F_SETLK, &own) != 0)
            continue;
        (void)file.release(); // the lock lasts as long as the process
        return;
    }
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
    return c_boundary(false, [slot] {
        const unique_fd file = open_marks(slot, O_RDONLY);
        struct flock found = bytes(0, 0);
        return file && ::fcntl(file.get(), F_GETLK, &found) == 0 && found.l_type != F_UNLCK;
    });
}
