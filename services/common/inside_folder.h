// Calls of the system that take a path and no folder to begin at.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>

#include "unique_fd.h"

// Runs a call with a folder as the working directory and restores that. -1 when it cannot be entered. errno is the
// call's. REQUIRES a process of one thread: nobody sees the working directory move.
template<class Call>
int inside_folder(int folder, Call call)
{
    const unique_fd before(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!before || ::fchdir(folder) != 0)
        return -1;
    const int result = call();
    const int failure = errno;
    if (::fchdir(before.get()) != 0)
        std::abort(); // from here on every relative path of the process would be another file
    errno = failure;
    return result;
}
