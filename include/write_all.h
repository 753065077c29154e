// Writing all of a buffer, however the system cuts it.
#pragma once

#include <cerrno>
#include <cstddef>
#include <unistd.h>

// Goes on behind what was written, and after an interrupted call unless given_up says that nobody wants the rest.
// false with errno when the rest was not written.
[[nodiscard]] inline bool write_all(int fd, const void *bytes, std::size_t length, bool (*given_up)() = nullptr)
{
    const char *rest = static_cast<const char *>(bytes);
    while (length > 0) {
        const ssize_t wrote = ::write(fd, rest, length);
        if (wrote < 0 && errno == EINTR && (given_up == nullptr || !given_up()))
            continue;
        if (wrote == 0)
            errno = EIO; // a device that takes nothing would be asked for ever
        if (wrote <= 0)
            return false;
        rest += wrote;
        length -= static_cast<std::size_t>(wrote);
    }
    return true;
}
