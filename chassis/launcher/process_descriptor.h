// Descriptors of processes: pidfd_open and pidfd_send_signal.
#pragma once

// The header declares them without C linkage in some releases of the C library. What it includes itself comes
// first, so that nothing else is affected.
#include <csignal>
#include <fcntl.h>
extern "C" {
#include <sys/pidfd.h>
}
