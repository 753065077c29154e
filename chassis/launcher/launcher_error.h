// What the launcher's functions throw: a text for the person at the terminal that says what failed, on what, and
// where there is something to be done about it, what.
#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

class launcher_error : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// "what: reason", the reason from errno.
inline launcher_error system_error_of(const std::string &what)
{
    return launcher_error(what + ": " + std::strerror(errno));
}
