// Commands of the daemon that make files from what a message names. A file of a few bytes may hold hundreds of
// megabytes packed: no command writes a larger file than what it is for, and one that fails leaves no file that
// could be taken for an image.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Of each file that a command makes: a system image's core plugin holds the images of all cards, and more.
constexpr std::uint64_t COMMAND_FILE_BYTES_MAX = std::uint64_t{512} << 20;

// How many bytes a file that the command makes may have: for the BIOS image, those of the card's larger flash.
std::uint64_t command_file_bytes_max(std::string_view command);

// The command with its bound, for the shell.
std::string bounded_command(std::string_view command, std::uint64_t bytes_max);

// To be called when the command has ended. One that failed to make the BIOS image, packed or not, leaves none of
// both. When it is larger than the bound an empty file stays under its name, which no flash takes: whoever programs
// is refused for the image's size and not told that nothing was to be done.
//   status  wait status
// errno is as before.
void clean_up_after(std::string_view command, int status, std::uint64_t bytes_max);
