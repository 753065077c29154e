// Reading all of a buffer from a place in a file, however the system cuts it.
#pragma once

#include <cstddef>
#include <cstdint>

// false with errno when not all was read: EIO when the file ends before.
[[nodiscard]] bool read_all_at(int fd, std::uint64_t offset, void *bytes_out, std::size_t length);
