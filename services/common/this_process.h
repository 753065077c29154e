// The number of this process, without a system call each time.
#pragma once

#include <sys/types.h>

// As of getpid, in forked children too.
pid_t this_process();
