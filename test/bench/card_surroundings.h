// The surroundings of a card's daemon, for another process to be put into.
#pragma once

#include <sys/types.h>

// This process goes on in the namespaces and the root of a process and with its environment, as a child of the
// calling process: that one waits for its end and ends. Throws std::runtime_error.
void enter_surroundings(pid_t process);
