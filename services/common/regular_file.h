// Opening what must be a regular file.
#pragma once

#include "unique_fd.h"

// The open file when it is a regular one; else nothing, with errno: EISDIR, EINVAL, or that of the system call that
// failed. Nothing, and errno as it was, when there is no file.
unique_fd if_regular(unique_fd file);

// Opens a regular file for reading; links are followed. Anything else is refused without waiting for a FIFO's
// writer. Empty with errno: EISDIR, EINVAL, or that of the system call that failed.
unique_fd open_regular_file(const char *path);
