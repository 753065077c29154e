// Ctrl-C. While a programming is watched it is an event that the wait loop asks for; while an answer is waited
// for, which cannot be cut short, it ends the process with a prepared text.
#pragma once

#include <string>

// Installs the handler; waiting system calls end with EINTR.
void catch_interrupt();

// Whether Ctrl-C came since catch_interrupt.
bool interrupted();

// While it lives, Ctrl-C writes the text to the descriptor and ends the process with EXIT_INTERRUPTED.
class interrupt_ends_process
{
public:
    interrupt_ends_process(int fd, const std::string &text);
    ~interrupt_ends_process();
    interrupt_ends_process(const interrupt_ends_process &) = delete;
    interrupt_ends_process &operator=(const interrupt_ends_process &) = delete;
};
