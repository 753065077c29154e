// Making a flash.
#include "nor_file_layout.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

#include "chassis_dir.h"
#include "flash_folder.h"
#include "unique_fd.h"
#include "write_all.h"

namespace
{

constexpr std::size_t PIECE_BYTES = 64 << 10;

// Copies the image and tells how many bytes it had.
bool copy_image(int destination, const std::string &image_path, std::uint32_t limit, std::uint32_t &copied)
{
    const unique_fd image(::open(image_path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!image)
        return false;
    std::vector<std::uint8_t> piece(PIECE_BYTES);
    for (;;) {
        const ssize_t got = ::read(image.get(), piece.data(), piece.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0;
        if (static_cast<std::size_t>(got) > limit - copied) {
            errno = EFBIG;
            return false;
        }
        if (!write_all(destination, piece.data(), static_cast<std::size_t>(got)))
            return false;
        copied += static_cast<std::uint32_t>(got);
    }
}

// The file is written out rather than left sparse: programming through a mapping must not run into a full disk.
bool write_contents(const std::string &path, std::uint32_t size_bytes, const std::string &image_path)
{
    const unique_fd data(::openat(chassis_dir_fd(), path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!data)
        return false;
    std::uint32_t written = 0;
    if (!image_path.empty() && !copy_image(data.get(), image_path, size_bytes, written))
        return false;
    const std::vector<std::uint8_t> erased(PIECE_BYTES, FLASH_ERASED_BYTE);
    while (written < size_bytes) {
        const std::uint32_t rest = size_bytes - written;
        const std::uint32_t length = rest < PIECE_BYTES ? rest : static_cast<std::uint32_t>(PIECE_BYTES);
        if (!write_all(data.get(), erased.data(), length))
            return false;
        written += length;
    }
    return ::fsync(data.get()) == 0;
}

bool write_settings(const std::string &folder, const flash_geometry &geometry)
{
    return chassis_write_value(folder + "/" + FLASH_FILE_SIZE_BYTES, geometry.size_bytes) &&
           chassis_write_value(folder + "/" + FLASH_FILE_SECTOR_BYTES, geometry.sector_bytes) &&
           chassis_write_value(folder + "/" + FLASH_FILE_PAGE_BYTES, geometry.page_bytes) &&
           chassis_write_value(folder + "/" + FLASH_FILE_TIMING, 0) &&
           chassis_write_file(folder + "/" + FLASH_FILE_PROTECTED, "");
}

} // namespace

int nor_file_create(unsigned slot, unsigned instance, const flash_geometry &geometry,
                    const std::string &initial_image)
{
    if (instance >= FLASH_INSTANCE_COUNT || !flash_geometry_valid(geometry)) {
        errno = EINVAL;
        return -1;
    }
    const std::string folder = flash_folder_path(slot, instance);
    const std::string data = folder + "/" + FLASH_FILE_DATA;
    if (::faccessat(chassis_dir_fd(), data.c_str(), F_OK, 0) == 0) {
        errno = EEXIST;
        return -1;
    }
    // The contents get their name last: a flash that was made halfway cannot be opened.
    const std::string fresh = data + ".new";
    if (make_flash_folder(slot, instance) && write_contents(fresh, geometry.size_bytes, initial_image) &&
        write_settings(folder, geometry) &&
        ::renameat(chassis_dir_fd(), fresh.c_str(), chassis_dir_fd(), data.c_str()) == 0)
        return 0;
    const int failure = errno;
    (void)::unlinkat(chassis_dir_fd(), fresh.c_str(), 0); // may not have been made
    errno = failure;
    return -1;
}
