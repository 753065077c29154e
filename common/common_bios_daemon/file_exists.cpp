#include "file_exists.h"

#include <cerrno>
#include <sys/stat.h>

bool file_exists(const char *path)
{
    struct stat status;
    return ::stat(path, &status) == 0 || errno == EOVERFLOW;
}
