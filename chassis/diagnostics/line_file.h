// Text files of a card that several processes append lines to.
#pragma once

#include <string>
#include <string_view>

// Makes a folder below a slot's unless it is there: "debug". false with errno.
bool make_slot_folder(unsigned slot, const char *name);

// Appends "TIME TEXT" and a newline in one write, so that lines of several processes do not mix.
//   path  below the chassis directory; the file is created
//   text  becomes one line: trailing newlines go, other control characters turn into blanks
// false with errno.
bool append_line(const std::string &path, std::string_view text);
