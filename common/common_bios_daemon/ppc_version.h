// Version text of a PowerPC BIOS in a flash or an image file, and the digest that proves an image file intact.
#pragma once

#include <cstdint>

extern "C" {

// As the readers of x86_version.h. An image file (phys_offset 0) has its digest checked first; a flash region
// has not.
// 0     the text was found
// -22   the path could not be opened or mapped
// -61   no signature, the file ends before what is read, or the digest differs
std::int32_t get_ppc_bios_version(const char *path, std::uint32_t phys_offset, char *version_out);
std::int32_t get_ppc_lc2dc3_bios_version(const char *path, std::uint32_t phys_offset, char *version_out);

// Compares the MD5 digest in an image's header with the digest of the image.
//   image  512 KiB in memory
// 0 when they are equal; the positive or negative strncmp value of their hexadecimal texts when not;
// -1081147420 when a work file could not be opened, -1081147426 when it could not be written.
// Uses work files of fixed names, so two calls must never overlap.
std::int32_t bios_checksum_ppc(const void *image);

} // extern "C"
