// Reading a BIOS image file.
#include "flash_image.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "flash_geometry.h"

std::optional<flash_image> flash_image::open(const char *path)
{
    // Not blocking: the name may be that of a pipe.
    unique_fd file(::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0)
        return std::nullopt;
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return std::nullopt;
    }
    return flash_image(std::move(file), static_cast<std::uint64_t>(status.st_size));
}

bool flash_image::read(std::uint64_t offset, std::uint8_t *bytes_out, std::uint32_t length) const
{
    const std::uint64_t there = offset < size_bytes_ ? std::min<std::uint64_t>(length, size_bytes_ - offset) : 0;
    std::size_t done = 0;
    while (done < there) {
        const ssize_t got = ::pread(file_.get(), bytes_out + done, static_cast<std::size_t>(there) - done,
                                    static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got == 0)
            errno = EIO;
        if (got <= 0)
            return false;
        done += static_cast<std::size_t>(got);
    }
    std::memset(bytes_out + done, FLASH_ERASED_BYTE, length - done);
    return true;
}
