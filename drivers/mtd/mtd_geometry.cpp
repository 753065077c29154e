#include "mtd_geometry.h"

#include <algorithm>
#include <mtd/mtd-user.h>
#include <numeric>

namespace
{

constexpr std::uint32_t PAGE_BYTES_MAX = 4096;

struct type_name {
    std::uint8_t type;
    const char *name;
};

constexpr type_name TYPE_NAMES[] = {
    {MTD_ABSENT, "absent"},
    {MTD_RAM, "RAM"},
    {MTD_ROM, "ROM"},
    {MTD_NORFLASH, "NOR flash"},
    {MTD_NANDFLASH, "NAND flash"},
    {MTD_DATAFLASH, "DataFlash"},
    {MTD_UBIVOLUME, "a UBI volume"},
    {MTD_MLCNANDFLASH, "NAND flash"},
};

std::string name_of(std::uint8_t type)
{
    const auto *found = std::find_if(std::begin(TYPE_NAMES), std::end(TYPE_NAMES),
                                     [type](const type_name &row) { return row.type == type; });
    return found != std::end(TYPE_NAMES) ? found->name : "of type " + std::to_string(type);
}

// Whether erasing whole units erases whole sectors of every region.
bool regions_fit(const mtd_description &mtd)
{
    return std::all_of(mtd.regions.begin(), mtd.regions.end(), [&](const mtd_region &region) {
        return region.erase_bytes > 0 && region.offset % mtd.erase_bytes == 0 &&
               mtd.erase_bytes % region.erase_bytes == 0;
    });
}

} // namespace

std::optional<flash_geometry> mtd_geometry(const mtd_description &mtd, std::string &problem)
{
    if (mtd.type != MTD_NORFLASH && mtd.type != MTD_RAM) {
        problem = "it is " + name_of(mtd.type) + ", and only NOR flash and RAM are programmed";
        return std::nullopt;
    }
    if (mtd.size_bytes > FLASH_MAX_BYTES) {
        problem = "it has " + std::to_string(mtd.size_bytes) + " bytes, more than any flash";
        return std::nullopt;
    }
    if (mtd.erase_bytes == 0 || !regions_fit(mtd)) {
        problem = "its sectors of different sizes do not add up to sectors of one size";
        return std::nullopt;
    }
    const std::uint32_t page_bytes = std::gcd(mtd.erase_bytes / 2, PAGE_BYTES_MAX);
    const flash_geometry geometry = {.size_bytes = static_cast<std::uint32_t>(mtd.size_bytes),
                                     .sector_bytes = mtd.erase_bytes,
                                     .page_bytes = page_bytes};
    if (mtd.write_bytes == 0 || page_bytes % mtd.write_bytes != 0 || !flash_geometry_valid(geometry)) {
        problem = "its " + std::to_string(mtd.size_bytes) + " bytes, sectors of " +
                  std::to_string(mtd.erase_bytes) + " and writes of " + std::to_string(mtd.write_bytes) +
                  " bytes do not fit each other";
        return std::nullopt;
    }
    return geometry;
}
