// The shape of a flash part, and its limits. No platform call is used here: tools compile this file into
// themselves.
#pragma once

#include <cstdint>

constexpr unsigned FLASH_INSTANCE_COUNT = 2; // 0 primary, 1 alternate
constexpr std::uint8_t FLASH_ERASED_BYTE = 0xff;
constexpr std::uint32_t FLASH_MAX_BYTES = std::uint32_t{256} << 20; // the largest single parts made

struct flash_geometry {
    std::uint32_t size_bytes = 0;                         // whole sectors, at most FLASH_MAX_BYTES
    std::uint32_t sector_bytes = std::uint32_t{64} << 10; // unit of erasing, whole pages
    std::uint32_t page_bytes = 256;                       // unit of programming
};

[[nodiscard]] constexpr bool flash_geometry_valid(const flash_geometry &geometry)
{
    return geometry.page_bytes > 0 && geometry.sector_bytes > 0 && geometry.size_bytes > 0 &&
           geometry.size_bytes <= FLASH_MAX_BYTES && geometry.sector_bytes % geometry.page_bytes == 0 &&
           geometry.size_bytes % geometry.sector_bytes == 0;
}
