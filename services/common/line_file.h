// Text files of a card that several processes append lines to.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// A file that would grow beyond this is renamed to NAME.1, in the place of an earlier one, and begun anew.
constexpr std::uint64_t LINE_FILE_LIMIT_BYTES = std::uint64_t{16} * 1024 * 1024;

// Makes a folder below a slot's unless it is there: "debug". false with errno.
bool make_slot_folder(unsigned slot, const char *name);

// Renames a full file to NAME.1. Of several processes that find it full one does so, and only while the file still
// has its name: else what has just been turned over would be thrown away. The others do not wait, because the one
// may have been stopped; what they write to the file meanwhile is not lost.
//   full_fd  the file as opened by this process; locked on return, until all its descriptors are closed
void turn_over_line_file(const std::string &path, int full_fd);

// Appends "TIME TEXT" and a newline in one write, so that lines of several processes do not mix.
//   path  below the chassis directory; the file is created, and turned over at LINE_FILE_LIMIT_BYTES
//   text  becomes one line: trailing newlines go, other characters that are not printable turn into blanks
// false with errno.
bool append_line(const std::string &path, std::string_view text);
