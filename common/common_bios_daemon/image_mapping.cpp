#include "image_mapping.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <utility>

#include "bios_log.h"
#include "bios_results.h"

namespace
{

// A device has no size that could be asked for; its mapping is as long as it was granted.
std::size_t bytes_behind(int fd, std::size_t length, std::uint32_t offset)
{
    struct stat64 status = {}; // the 32-bit one fails on large inode numbers
    if (::fstat64(fd, &status) != 0 || !S_ISREG(status.st_mode))
        return length;
    if (status.st_size <= static_cast<off64_t>(offset))
        return 0;
    const auto behind = static_cast<std::uint64_t>(status.st_size) - offset;
    return static_cast<std::size_t>(std::min<std::uint64_t>(behind, length));
}

} // namespace

std::int32_t image_mapping::map(const char *path, std::size_t length, std::uint32_t offset)
{
    unique_fd fd(::open(path, O_RDWR));
    if (fd.get() <= 0) {
        BIOS_LOG("ERROR: could not open the flash err=%d \n", errno);
        return BIOS_READER_NO_ACCESS;
    }
    void *address =
        ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), static_cast<off_t>(offset));
    if (address == MAP_FAILED) {
        BIOS_LOG("ERROR: could not mmap the flash err=%d \n", errno);
        return BIOS_READER_NO_ACCESS;
    }
    readable_bytes_ = bytes_behind(fd.get(), length, offset);
    fd_ = std::move(fd);
    address_ = address;
    length_ = length;
    return 0;
}

void image_mapping::release()
{
    if (address_ != nullptr)
        (void)::munmap(address_, length_);
    address_ = nullptr;
    length_ = 0;
    readable_bytes_ = 0;
    fd_.reset();
}
