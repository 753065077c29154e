// Version text of an x86 BIOS in a flash device or an image file, and the fields it is decoded from.
#pragma once

#include <cstdint>

extern "C" {

// Each reader maps the file shared and read-write and decodes the text.
//   path         flash device node or image file; opened read-write
//   phys_offset  byte offset at which it is mapped, a valid mapping offset (0: the whole file)
//   version_out  128 bytes; zeroed at entry, NUL-terminated text on success
// 0     the text was found
// -22   the path could not be opened or mapped
// -61   no BIOS signature, or nothing of the header lies in the file; behind a file's end are zeros
std::int32_t get_x86_bios_version(const char *path, std::uint32_t phys_offset, char *version_out); // "%8.8s(%8.8s)"
std::int32_t get_x86n_bios_version(const char *path, std::uint32_t phys_offset,
                                   char *version_out); // "  v3.5.0(09/17/12)"
std::int32_t get_x86s_bios_version(const char *path, std::uint32_t phys_offset, char *version_out); // as x86n

// 0 when the header (49 readable bytes) carries the image-header magic or the BIOS signature, else -1.
std::int32_t magic_string_check(const void *header);

// Month 1..12 of a three-letter English abbreviation, -1 when it is none. length is 3.
std::int32_t asc_to_mon(const char *text, std::int32_t length);

// Decimal number at a NUL-terminated text, 0 when there is none. length (2) does not bound it.
std::int32_t asc_to_dec(const char *text, std::int32_t length);

} // extern "C"
