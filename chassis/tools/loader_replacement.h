// The boot-loader partition: a folder with one file, srg-sloader.sro.
#pragma once

constexpr const char *LOADER_FILE = "srg-sloader.sro";

// Puts the loader into the partition. It is written beside the old one, synced, read back and compared before it
// takes the old one's place; so both need room at the same time.
//   folder_fd  the partition, mounted for writing
//   source_fd  the loader file, from its beginning
// Throws image_error; the old loader is then there as before.
void replace_loader(int folder_fd, int source_fd);
