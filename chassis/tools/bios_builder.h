// BIOS images of the x86n kind: header at the start, firmware at the end, erased flash between them. And
// boot-loader files: a head with the version, and the loader behind it.
#pragma once

#include <cstddef>
#include <string>

#include "bios_header.h"

// "8" or "16" is a number of MiB, "64K" one of KiB. Bytes; throws image_error for anything else, and for a size
// that is not a multiple of 4 KiB or larger than 64 MiB.
std::size_t parse_image_size(const std::string &text);

// "MAJOR.MINOR" and "MM/DD/YY" put into a header. Throws image_error unless every number can be told by the
// header's fields and the date exists.
bios_header parse_bios_header(const std::string &version, const std::string &date);

// The image: the header in its first bytes, the payload so that it ends with the image (there the processor
// fetches its first instruction), 0xFF everywhere else. Throws image_error when the payload does not fit.
std::string build_bios_image(const bios_header &header, std::size_t image_bytes, const std::string &payload);

// The payload with the text by which its firmware names its version replaced by the version of the header. The new
// text has blanks behind it: nothing in the payload moves. Throws image_error unless the text is there exactly once
// and is long enough.
std::string payload_with_version(std::string payload, const std::string &text, const bios_header &header);

// The loader file: a head of 4 KiB with the version, the payload, and zeros up to the size. file_bytes 0: no larger
// than need be. Throws image_error for a version that no reader would find, or when the payload does not fit.
std::string build_loader_file(const std::string &version, std::size_t file_bytes, const std::string &payload);
