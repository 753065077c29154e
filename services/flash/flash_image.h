// A BIOS image file, read piece by piece. It is not mapped: it may be cut short by others while it is in use, which
// is then a failed read and not the end of the process.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "unique_fd.h"

class flash_image
{
public:
    // Opens an image; a symbolic link is not followed and nothing but a regular file is taken.
    // Nothing with errno: EINVAL when it is not a regular file, or that of the system call that failed.
    static std::optional<flash_image> open(const char *path);

    std::uint64_t size_bytes() const { return size_bytes_; } // when it was opened

    // Reads length bytes at an offset; beyond the size that the image had when it was opened they are erased ones.
    // false with errno: EIO when the image has become shorter, or that of the system call that failed.
    [[nodiscard]] bool read(std::uint64_t offset, std::uint8_t *bytes_out, std::uint32_t length) const;

private:
    flash_image(unique_fd &&file, std::uint64_t size_bytes) : file_(std::move(file)), size_bytes_(size_bytes) {}

    unique_fd file_;
    std::uint64_t size_bytes_;
};
