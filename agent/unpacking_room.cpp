#include "unpacking_room.h"

#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace
{

constexpr std::uint64_t STAT_BLOCK_BYTES = 512;

// What the removal of a file gives back.
std::uint64_t bytes_kept_by(const std::string &path)
{
    struct stat status {
    };
    const bool goes = ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1;
    return goes ? static_cast<std::uint64_t>(status.st_blocks) * STAT_BLOCK_BYTES : 0;
}

} // namespace

std::uint64_t missing_room(const char *temporary_image, std::span<const std::uint64_t> file_bytes)
{
    const std::string image = temporary_image;
    struct statvfs disk {
    };
    if (::statvfs(image.substr(0, image.rfind('/') + 1).c_str(), &disk) != 0 || disk.f_frsize == 0)
        return 0;
    const std::uint64_t block = disk.f_frsize;
    std::uint64_t needed = 0;
    for (const std::uint64_t bytes : file_bytes)
        needed += (bytes + block - 1) / block * block;
    // The daemon is root's and may take the blocks that are reserved.
    const std::uint64_t room = disk.f_bfree * block + bytes_kept_by(image) + bytes_kept_by(image + ".gz");
    return needed > room ? needed - room : 0;
}
