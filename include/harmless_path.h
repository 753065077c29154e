// Which paths of a message may stand in a command line of the daemon.
#pragma once

#include <cstring>

// True for a path of letters, digits and / . _ - + : @ , = % that is not empty and does not begin with a dash:
// no shell and no tool takes it for anything but a file name.
inline bool is_harmless_path(const char *path)
{
    constexpr const char *HARMLESS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+:@,=%";
    return path[0] != '\0' && path[0] != '-' && path[std::strspn(path, HARMLESS)] == '\0';
}
