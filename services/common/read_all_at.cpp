#include "read_all_at.h"

#include <cerrno>
#include <unistd.h>

bool read_all_at(int fd, std::uint64_t offset, void *bytes_out, std::size_t length)
{
    auto *rest = static_cast<char *>(bytes_out);
    while (length > 0) {
        const ssize_t got = ::pread(fd, rest, length, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got == 0)
            errno = EIO;
        if (got <= 0)
            return false;
        rest += got;
        offset += static_cast<std::uint64_t>(got);
        length -= static_cast<std::size_t>(got);
    }
    return true;
}
