// A BIOS image file, read piece by piece. It is not mapped: it may be cut short by others while it is in use, which
// is then a failed read and not the end of the process.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "image_manifest.h"
#include "unique_fd.h"

class flash_image
{
public:
    // Opens an image; a symbolic link is not followed and nothing but a regular file is taken.
    // Nothing with errno: EINVAL when it is not a regular file, or that of the system call that failed.
    static std::optional<flash_image> open(const char *path);

    std::uint64_t size_bytes() const { return size_bytes_; } // when it was opened

    // The version text of the image without blanks; empty when it has none.
    std::string version() const;

    // Reads all of it, and finds its digest and its manifest. false with errno, as of read_image.
    [[nodiscard]] bool examine(image_reading &reading_out);

    // Whether the file was written to since it was opened, or since it was examined.
    [[nodiscard]] bool has_changed() const;

    int descriptor() const { return file_.get(); }

    // Reads length bytes at an offset; beyond the size that the image had when it was opened they are erased ones.
    // false with errno: EIO when the image has become shorter, or that of the system call that failed.
    [[nodiscard]] bool read(std::uint64_t offset, std::uint8_t *bytes_out, std::uint32_t length) const;

private:
    flash_image(unique_fd &&file, std::uint64_t size_bytes, std::int64_t written_at_ns)
        : file_(std::move(file)),
          size_bytes_(size_bytes),
          written_at_ns_(written_at_ns)
    {
    }
    void settle();

    unique_fd file_;
    std::uint64_t size_bytes_;
    std::int64_t written_at_ns_; // since 1970, as of then. No timespec: its size depends on how a file is compiled
};
