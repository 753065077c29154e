#include "mtd_calls.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

const mtd_calls mtd_kernel_calls = {
    .sysfs = "/sys/class/mtd",
    .devices = "/dev",
    .open = [](const char *path, int flags) { return ::open(path, flags); },
    .close = [](int fd) { (void)::close(fd); },
    .device_number =
        [](int fd, unsigned &major_out, unsigned &minor_out) {
            struct stat status;
            if (::fstat(fd, &status) != 0)
                return false;
            if (!S_ISCHR(status.st_mode)) {
                errno = ENXIO;
                return false;
            }
            major_out = major(status.st_rdev);
            minor_out = minor(status.st_rdev);
            return true;
        },
    .ioctl = [](int fd, unsigned long request, void *argument) { return ::ioctl(fd, request, argument); },
    .pread = [](int fd, void *bytes_out, std::size_t length,
                std::uint64_t offset) { return ::pread(fd, bytes_out, length, static_cast<off_t>(offset)); },
    .pwrite = [](int fd, const void *bytes, std::size_t length,
                 std::uint64_t offset) { return ::pwrite(fd, bytes, length, static_cast<off_t>(offset)); },
};
