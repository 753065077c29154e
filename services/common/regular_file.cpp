#include "regular_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

unique_fd if_regular(unique_fd file)
{
    struct stat status {
    };
    if (!file || ::fstat(file.get(), &status) != 0)
        return unique_fd();
    if (!S_ISREG(status.st_mode)) {
        file.reset();
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }
    return file;
}

unique_fd open_regular_file(const char *path)
{
    return if_regular(unique_fd(::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)));
}
