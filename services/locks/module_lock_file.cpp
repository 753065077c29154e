#include "module_lock_file.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "chassis_dir.h"
#include "line_file.h"

namespace
{

constexpr std::uint32_t NODE_ID_COUNT = 0x10000;

struct flock range(short type, std::uint32_t first, std::uint32_t count)
{
    struct flock lock {
    };
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(first);
    lock.l_len = static_cast<off_t>(count);
    return lock;
}

int set_lock(int file, short type, std::uint16_t node_id)
{
    const struct flock lock = range(type, node_id, 1);
    while (::fcntl(file, F_SETLK, &lock) != 0) {
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EACCES)
            errno = EBUSY;
        return -1;
    }
    return 0;
}

// The system names one lock at a time, and locks of one process side by side as one: look on both sides of it.
bool collect_others(int file, std::uint32_t first, std::uint32_t end, std::set<std::uint16_t> &held)
{
    if (first >= end)
        return true;
    struct flock found = range(F_WRLCK, first, end - first);
    if (::fcntl(file, F_GETLK, &found) != 0)
        return false;
    if (found.l_type == F_UNLCK)
        return true;
    const auto found_first = static_cast<std::uint32_t>(std::max<off_t>(found.l_start, first));
    const off_t found_end_offset = found.l_len == 0 ? off_t{end} : found.l_start + found.l_len;
    const auto found_end = static_cast<std::uint32_t>(std::min<off_t>(found_end_offset, end));
    for (std::uint32_t node_id = found_first; node_id < found_end; ++node_id)
        held.insert(static_cast<std::uint16_t>(node_id));
    return collect_others(file, first, found_first, held) && collect_others(file, found_end, end, held);
}

} // namespace

bool module_lock_file::open()
{
    const int chassis = chassis_dir_fd();
    const unsigned slot = chassis_own_slot();
    if (chassis < 0)
        return false;
    if (slot == 0) {
        errno = ENXIO; // a tool is on no card
        return false;
    }
    if (!make_slot_folder(slot, MODULE_LOCK_FOLDER))
        return false;
    file_.reset(::openat(chassis, chassis_slot_path(slot, MODULE_LOCK_FILE).c_str(),
                         O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    return is_open();
}

int module_lock_file::take(std::uint16_t node_id) const
{
    return set_lock(file_.get(), F_WRLCK, node_id);
}

int module_lock_file::give_back(std::uint16_t node_id) const
{
    return set_lock(file_.get(), F_UNLCK, node_id);
}

bool module_lock_file::is_others(std::uint16_t node_id) const
{
    struct flock found = range(F_WRLCK, node_id, 1);
    return ::fcntl(file_.get(), F_GETLK, &found) == 0 && found.l_type != F_UNLCK;
}

bool module_lock_file::find_others(std::set<std::uint16_t> &held_out) const
{
    return collect_others(file_.get(), 0, NODE_ID_COUNT, held_out);
}
