#include "flash_surroundings.h"
#include "memory_flash.h"

const flash_driver &tested_flash_driver = memory_flash_driver;

void make_flash()
{
    constexpr flash_geometry GEOMETRY = {.size_bytes = 8 << 10, .sector_bytes = 1 << 10, .page_bytes = 128};
    memory_flash_of(0) = {.geometry = GEOMETRY,
                          .bytes = std::vector<std::uint8_t>(GEOMETRY.size_bytes, FLASH_ERASED_BYTE)};
    memory_flash_of(1) = {};
}

bool protect_flash_sector(std::uint32_t sector)
{
    memory_flash_of(0).protected_sectors.insert(sector);
    return true;
}

std::vector<std::uint8_t> flash_contents()
{
    return memory_flash_of(0).bytes;
}

void remove_flash()
{
    memory_flash_of(0) = {};
}

bool flash_is_shared_by_processes()
{
    return false;
}
