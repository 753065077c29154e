// A file that is written whole or not at all.
#pragma once

#include <cstdint>
#include <span>
#include <string>

// errno of why a file cannot be written there, 0 when nothing is known against it. EEXIST when it is there and must
// not be replaced.
int check_output_file(const std::string &path, bool overwrite);

// Writes beside the place and renames: whoever reads the path meanwhile finds the old file or the new one. On the
// disk when it returns. 0, or the errno of what failed; then the place is as it was.
int write_output_file(const std::string &path, std::span<const std::uint8_t> content, bool overwrite);
