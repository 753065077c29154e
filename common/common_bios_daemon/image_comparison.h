// Byte comparison of a flash with an image.
#pragma once

#include <cstdint>

extern "C" {

// Compares two stretches of bytes in place, through shared mappings.
//   path1, path2  flash device nodes or image files; opened read-write
//   off1, off2    byte offsets, valid mapping offsets (page-aligned)
//   len           bytes to compare
// 0     equal, also when len is 0
// 1     at the first difference the byte of the first stretch is the greater one (unsigned)
// -1    there it is the smaller one
// -22   a path could not be opened or mapped, or a file ends before its stretch does
std::int32_t compare_bios_images(const char *path1, std::int32_t off1, const char *path2, std::int32_t off2,
                                 std::uint32_t len);

} // extern "C"
