// Placing a file below the private root of another card.
#pragma once

#include <string>

// Copies a regular file of this process's file system below another card's root. The destination is replaced in one
// step; until then the old one stays as it was. When the copy fails, an empty file takes its place. Nothing outside
// of the root is ever touched: links in the root lead to places in the root, or, on kernels that cannot resolve so,
// are refused in the folders of the path. A link at the destination itself is replaced.
//   slot         card whose root is meant
//   source       path of the file to copy; its permissions go with it
//   destination  absolute path as the other card sees it; its folder exists; without ".."
// 0, or -1 with errno: EINVAL for a path that names no file, ENOTSUP for a destination on a boot flash that is
// a file system of the other card's own, or that of the system call that failed.
int place_file_in_card_root(unsigned slot, const char *source, const char *destination);
