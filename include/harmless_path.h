// Which paths of a message may stand in a command line of the daemon, and which names may be those of files.
#pragma once

#include <cstring>

// True for a path of letters, digits and / . _ - + : @ , = % that is not empty and does not begin with a dash:
// no shell and no tool takes it for anything but a file name.
inline bool is_harmless_path(const char *path)
{
    constexpr const char *HARMLESS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+:@,=%";
    return path[0] != '\0' && path[0] != '-' && path[std::strspn(path, HARMLESS)] == '\0';
}

// True for a harmless path of letters, digits and . _ - + that does not begin with a dot: a file in the folder
// where it is looked for, and none that is hidden.
inline bool is_harmless_file_name(const char *name)
{
    return is_harmless_path(name) && name[0] != '.' && name[std::strcspn(name, "/:@,=%")] == '\0';
}
