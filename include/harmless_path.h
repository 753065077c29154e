// Which paths of a message may stand in a command line of the daemon.
#pragma once

#include <cstring>

// What a harmless path is made of.
constexpr char HARMLESS_CHARACTERS[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+:@,=%";

// True for a path of harmless characters that is not empty and does not begin with a dash: no shell and no tool takes
// it for anything but a file name.
inline bool is_harmless_path(const char *path)
{
    return path[0] != '\0' && path[0] != '-' && path[std::strspn(path, HARMLESS_CHARACTERS)] == '\0';
}
