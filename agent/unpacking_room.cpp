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

// What of the files does not fit beside what is there. given_back: room that there will be besides.
std::uint64_t missing_in_folder_of(const std::string &path, std::span<const std::uint64_t> file_bytes,
                                   std::uint64_t given_back)
{
    struct statvfs disk {
    };
    if (::statvfs(path.substr(0, path.rfind('/') + 1).c_str(), &disk) != 0 || disk.f_frsize == 0)
        return 0;
    const std::uint64_t block = disk.f_frsize;
    std::uint64_t needed = 0;
    for (const std::uint64_t bytes : file_bytes)
        needed += (bytes + block - 1) / block * block;
    // The daemon is root's and may take the blocks that are reserved.
    const std::uint64_t room = disk.f_bfree * block + given_back;
    return needed > room ? needed - room : 0;
}

} // namespace

std::uint64_t missing_room(const char *temporary_image, std::span<const std::uint64_t> file_bytes)
{
    const std::string image = temporary_image;
    return missing_in_folder_of(image, file_bytes, bytes_kept_by(image) + bytes_kept_by(image + ".gz"));
}

std::uint64_t missing_room_for_copy(const char *temporary_image, std::uint64_t image_bytes)
{
    return missing_in_folder_of(temporary_image, {&image_bytes, 1}, 0);
}
