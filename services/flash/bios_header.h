// The header of an x86n BIOS image: 128 bytes of ASCII text at the start of the image and of the flash.
//
//     offset  content
//         18  signature ">>> KORVA SUP_TELMA_OR BIOS <<<", 31 characters
//         55  month of the build, three-letter English abbreviation
//         59  day, decimal
//         77  year, two digits
//         81  major version, decimal
//         84  minor version, decimal
//
// What stands between the fields is free text; a number ends at the first character that is no digit.
// No platform call is used here: tools of any word size compile this file into themselves.
#pragma once

#include <cstddef>
#include <string>

constexpr std::size_t BIOS_HEADER_BYTES = 128;
constexpr std::size_t BIOS_HEADER_TEXT_BYTES = 128; // room for the text form, terminator included

struct bios_header {
    int major;
    int minor;
    int month; // 1..12; -1 for a header whose month name is unknown
    int day;
    int year; // two digits
};

// Reads a header.
//   bytes       BIOS_HEADER_BYTES bytes
//   header_out  set on success; a number field without digits is 0
// false when the signature is missing.
[[nodiscard]] bool bios_header_read(const void *bytes, bios_header &header_out);

// Writes a header that bios_header_read reads back unchanged.
//   bytes_out  BIOS_HEADER_BYTES bytes, untouched on failure
// false when a value does not fit its field: major 0..99, minor 0..9999, month 1..12, day 1..31, year 0..99.
[[nodiscard]] bool bios_header_write(const bios_header &header, void *bytes_out);

// The version text of a header, for example "  v3.5.0(09/17/12)" with its two leading blanks.
//   text_out  BIOS_HEADER_TEXT_BYTES bytes, NUL-terminated
void bios_header_text(const bios_header &header, char *text_out);
std::string bios_header_text(const bios_header &header);

// The version text in BIOS_HEADER_BYTES bytes without the blanks, "v3.5.0(09/17/12)"; empty when they are no
// header.
std::string bios_version_in(const void *bytes);
