// The files `writer` and `programming` of a flash's folder.
#include "flash_state.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "c_boundary.h"
#include "regular_file.h"

namespace
{

bool refuse(int reason)
{
    errno = reason;
    return false;
}

bool create_marker(const flash_folder &folder, flash_marker_wait wait)
{
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const unique_fd marker = if_regular(unique_fd(::openat(folder.fd.get(), FLASH_FILE_PROGRAMMING, FLAGS, 0644)));
    if (!marker)
        return false;
    return wait == flash_marker_wait::none || (::fsync(marker.get()) == 0 && ::fsync(folder.fd.get()) == 0);
}

} // namespace

flash_state::~flash_state()
{
    best_effort([this] { save_wear(); }); // these are statistics only
}

bool flash_state::open(unsigned slot, unsigned instance)
{
    folder_ = open_flash_folder(slot, instance);
    return static_cast<bool>(folder_.fd);
}

bool flash_state::become_writer()
{
    unique_fd file = if_regular(open_writer_file(folder_));
    if (!file)
        return false;
    // Owned by this opening and not by the process: a second one in the same process is refused, too.
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (::fcntl(file.get(), F_OFD_SETLK, &whole) != 0)
        return refuse(errno == EAGAIN || errno == EACCES ? EBUSY : errno);
    writer_ = std::move(file);
    return true;
}

bool flash_state::set_marker(flash_marker_wait wait)
{
    if (!is_writer())
        return refuse(EBADF);
    const bool was_marked = is_marked();
    if (create_marker(folder_, wait))
        return true;
    const int failure = errno;
    if (!was_marked)
        (void)::unlinkat(folder_.fd.get(), FLASH_FILE_PROGRAMMING, 0); // it may not have been made
    return refuse(failure);
}

bool flash_state::clear_marker(flash_marker_wait wait)
{
    if (!is_writer())
        return refuse(EBADF);
    if (::unlinkat(folder_.fd.get(), FLASH_FILE_PROGRAMMING, 0) != 0 && errno != ENOENT)
        return false;
    return wait == flash_marker_wait::none || ::fsync(folder_.fd.get()) == 0;
}
