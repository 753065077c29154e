// Whether a file is there.
#pragma once

// True also when the 32-bit stat cannot express the file's size or inode number: the file is there all the same.
bool file_exists(const char *path);
