// Reading a BIOS image file.
#include "flash_image.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bios_header.h"
#include "flash_geometry.h"
#include "monotonic_clock.h"
#include "read_all_at.h"

namespace
{

constexpr std::int64_t FILE_TICK_US = 20'000; // two writes in less may leave a file the same time

std::int64_t nanoseconds_of(const struct stat &status)
{
    return std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec;
}

} // namespace

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
    return flash_image(std::move(file), static_cast<std::uint64_t>(status.st_size), nanoseconds_of(status));
}

bool flash_image::read(std::uint64_t offset, std::uint8_t *bytes_out, std::uint32_t length) const
{
    const std::uint64_t there = offset < size_bytes_ ? std::min<std::uint64_t>(length, size_bytes_ - offset) : 0;
    const auto read_bytes = static_cast<std::size_t>(there);
    if (!read_all_at(file_.get(), offset, bytes_out, read_bytes))
        return false;
    std::memset(bytes_out + read_bytes, FLASH_ERASED_BYTE, length - read_bytes);
    return true;
}

std::string flash_image::version() const
{
    std::uint8_t header[BIOS_HEADER_BYTES];
    if (size_bytes_ < sizeof header || !read(0, header, sizeof header))
        return {};
    return bios_version_in(header);
}

// A write after this leaves the file another time.
void flash_image::settle()
{
    struct stat status {
    };
    if (::fstat(file_.get(), &status) != 0)
        return;
    if (const std::int64_t age_us = microseconds_of(CLOCK_REALTIME) - nanoseconds_of(status) / 1000;
        age_us >= 0 && age_us < FILE_TICK_US) {
        (void)::usleep(static_cast<useconds_t>(FILE_TICK_US - age_us));
        (void)::fstat(file_.get(), &status);
    }
    written_at_ns_ = nanoseconds_of(status);
}

bool flash_image::examine(image_reading &reading_out)
{
    settle();
    return read_image(file_.get(), reading_out);
}

bool flash_image::has_changed() const
{
    struct stat status {
    };
    return ::fstat(file_.get(), &status) != 0 || static_cast<std::uint64_t>(status.st_size) != size_bytes_ ||
           nanoseconds_of(status) != written_at_ns_;
}
