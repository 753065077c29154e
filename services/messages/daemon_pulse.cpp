#include "daemon_pulse.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>

#include "c_boundary.h"
#include "chassis_dir.h"
#include "monotonic_clock.h"
#include "unique_fd.h"

namespace
{

std::string file_path(unsigned slot)
{
    return chassis_slot_path(slot, "pulse");
}

} // namespace

void note_daemon_pulse() noexcept
{
    static std::int64_t next_us = 0;
    const std::int64_t now_us = monotonic_tick_us();
    if (now_us < next_us)
        return;
    next_us = now_us + MICROSECONDS;
    best_effort([] {
        const std::string path = file_path(chassis_own_slot());
        if (::utimensat(chassis_dir_fd(), path.c_str(), nullptr, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT)
            const unique_fd made(::openat(chassis_dir_fd(), path.c_str(),
                                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, 0644));
    });
}

std::optional<std::int64_t> daemon_pulse_age_s(unsigned slot)
{
    struct stat status {
    };
    if (::fstatat(chassis_dir_fd(), file_path(slot).c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return std::nullopt;
    return std::max<std::int64_t>(std::int64_t{std::time(nullptr)} - status.st_mtim.tv_sec, 0);
}
