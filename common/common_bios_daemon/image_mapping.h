// A BIOS flash device or image file mapped shared and read-write, as the version readers look at it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

#include "unique_fd.h"

class image_mapping
{
public:
    image_mapping() = default;
    image_mapping(const image_mapping &) = delete;
    image_mapping &operator=(const image_mapping &) = delete;
    ~image_mapping() { release(); }

    // Opens and maps length bytes at offset; a failure is logged. Descriptor 0 is refused: it is what a daemon
    // without standard input gets and nobody's flash.
    // 0, or BIOS_READER_NO_ACCESS.
    [[nodiscard]] std::int32_t map(const char *path, std::size_t length, std::uint32_t offset);

    // The two halves of map: opening, which tells of a failure by its result alone, and mapping what is open, which
    // logs a failure and closes.
    [[nodiscard]] bool open(const char *path);
    [[nodiscard]] std::int32_t map_opened(std::size_t length, off_t offset);

    // Unmaps and stays open; the address is not valid afterwards.
    void unmap();

    // Unmaps and closes.
    void release();

    const std::uint8_t *bytes() const { return static_cast<const std::uint8_t *>(address_); }

    // How many of the mapped bytes the file really has; those behind its end must not be touched.
    std::size_t readable_bytes() const { return readable_bytes_; }

private:
    unique_fd fd_;
    void *address_ = nullptr;
    std::size_t length_ = 0;
    std::size_t readable_bytes_ = 0;
};
