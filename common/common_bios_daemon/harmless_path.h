// Which paths of a message may stand in a command line of the daemon.
#pragma once

// True for a path of letters, digits and / . _ - + : @ , = % that is not empty and does not begin with a dash:
// no shell and no tool takes it for anything but a file name.
bool is_harmless_path(const char *path);
