#include "keeper_lock.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <string>

#include "chassis_dir.h"
#include "launcher_error.h"
#include "process_descriptor.h"

namespace
{

constexpr const char *COMMAND_LOCK = "launcher.lock";

unique_fd open_lock_file(const std::string &path)
{
    unique_fd file(::openat(chassis_dir_fd(), path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file)
        throw system_error_of(path);
    return file;
}

struct flock whole_file()
{
    struct flock region = {};
    region.l_type = F_WRLCK;
    region.l_whence = SEEK_SET;
    return region;
}

// No descriptor when another process has the lock.
unique_fd take_lock(const std::string &path)
{
    unique_fd file = open_lock_file(path);
    const struct flock region = whole_file();
    if (::fcntl(file.get(), F_SETLK, &region) == 0)
        return file;
    if (errno == EACCES || errno == EAGAIN)
        return {};
    throw system_error_of(path);
}

// Process number of the holder; 0 when nobody has the lock.
int lock_holder(int file)
{
    struct flock region = whole_file();
    if (::fcntl(file, F_GETLK, &region) != 0 || region.l_type == F_UNLCK)
        return 0;
    return region.l_pid;
}

} // namespace

unique_fd become_keeper(unsigned slot)
{
    return take_lock(chassis_slot_path(slot, "keeper"));
}

keeper keeper_of(unsigned slot)
{
    const unique_fd file = open_lock_file(chassis_slot_path(slot, "keeper"));
    const int holder = lock_holder(file.get());
    if (holder <= 0)
        return {};
    unique_fd process(::pidfd_open(holder, 0));
    // Asked again: had it ended before the descriptor was opened, the number might be another process's by now.
    if (!process || lock_holder(file.get()) != holder)
        return {};
    return {holder, std::move(process)};
}

bool has_ended(const keeper &process, std::chrono::milliseconds patience)
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd wait = {process.process.get(), POLLIN, 0};
        const int ready = ::poll(&wait, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

unique_fd lock_commands()
{
    unique_fd lock = take_lock(COMMAND_LOCK);
    if (!lock)
        throw launcher_error("another chassis command is starting or stopping this chassis");
    return lock;
}
