// Mounts in the own mount namespace. The place is given as a descriptor, so that nothing that a card has put into
// its tree in the meantime can lead a mount elsewhere.
#pragma once

#include <string>

// Shows a folder (with the mounts below it) or a file of this machine in the place, read-only where the kernel
// allows: that protects this machine from a card's accidents, and the card does without it. Throws launcher_error.
void mount_from_machine(const std::string &source, int place_fd);

// A file system in memory, of that size. Throws launcher_error.
void mount_memory(int place_fd, unsigned size_mib);
