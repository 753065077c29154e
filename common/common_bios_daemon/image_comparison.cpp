#include "image_comparison.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "bios_log.h"
#include "bios_results.h"
#include "image_mapping.h"

namespace
{

// Maps the whole stretch of an opened file. The part of a mapping behind the file's end cannot be read: such a
// stretch cannot be had.
std::int32_t map_stretch(image_mapping &mapping, std::int32_t offset, std::uint32_t length)
{
    const std::size_t mapped_bytes = std::max<std::size_t>(length, 1); // no mapping is empty
    if (const std::int32_t result = mapping.map_opened(mapped_bytes, offset); result != 0)
        return result;
    if (mapping.readable_bytes() >= length)
        return 0;
    BIOS_LOG("ERROR: could not mmap the flash err=%d \n", ENXIO);
    mapping.release();
    return BIOS_READER_NO_ACCESS;
}

} // namespace

std::int32_t compare_bios_images(const char *path1, std::int32_t off1, const char *path2, std::int32_t off2,
                                 std::uint32_t len)
{
    image_mapping first;
    if (!first.open(path1))
        return BIOS_READER_NO_ACCESS;
    if (const std::int32_t result = map_stretch(first, off1, len); result != 0)
        return result;
    image_mapping second;
    if (!second.open(path2))
        return BIOS_READER_NO_ACCESS;
    if (const std::int32_t result = map_stretch(second, off2, len); result != 0)
        return result;

    const int difference = std::memcmp(first.bytes(), second.bytes(), len);
    first.unmap();
    second.unmap();
    first.release();
    second.release();
    return (difference > 0) - (difference < 0);
}
