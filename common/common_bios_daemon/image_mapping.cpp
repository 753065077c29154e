#include "image_mapping.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <type_traits>
#include <utility>

#include "bios_log.h"
#include "bios_results.h"

namespace
{

// A device has no size that could be asked for; its mapping is as long as it was granted.
std::size_t bytes_behind(int fd, std::size_t length, off_t offset)
{
    struct stat64 status = {}; // the 32-bit one fails on large inode numbers
    if (::fstat64(fd, &status) != 0 || !S_ISREG(status.st_mode))
        return length;
    // The offset of a mapping counts as unsigned where off_t has 32 bits.
    const auto start = static_cast<std::uint64_t>(static_cast<std::make_unsigned_t<off_t>>(offset));
    const auto size = static_cast<std::uint64_t>(status.st_size);
    return size <= start ? 0 : static_cast<std::size_t>(std::min<std::uint64_t>(size - start, length));
}

} // namespace

bool image_mapping::open(const char *path)
{
    unique_fd fd(::open(path, O_RDWR));
    if (fd.get() <= 0)
        return false;
    fd_ = std::move(fd);
    return true;
}

std::int32_t image_mapping::map_opened(std::size_t length, off_t offset)
{
    void *address = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd_.get(), offset);
    if (address == MAP_FAILED) {
        BIOS_LOG("ERROR: could not mmap the flash err=%d \n", errno);
        fd_.reset();
        return BIOS_READER_NO_ACCESS;
    }
    readable_bytes_ = bytes_behind(fd_.get(), length, offset);
    address_ = address;
    length_ = length;
    return 0;
}

std::int32_t image_mapping::map(const char *path, std::size_t length, std::uint32_t offset)
{
    if (!open(path)) {
        BIOS_LOG("ERROR: could not open the flash err=%d \n", errno);
        return BIOS_READER_NO_ACCESS;
    }
    return map_opened(length, static_cast<off_t>(offset));
}

void image_mapping::unmap()
{
    if (address_ != nullptr)
        (void)::munmap(address_, length_);
    address_ = nullptr;
    length_ = 0;
    readable_bytes_ = 0;
}

void image_mapping::release()
{
    unmap();
    fd_.reset();
}
