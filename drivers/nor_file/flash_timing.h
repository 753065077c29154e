// Optional timing of a real part: operations take as long as the typical datasheet figures of 64 and 128 Mbit SPI
// NOR flashes say.
#pragma once

#include <cstdint>

constexpr std::uint64_t FLASH_SECTOR_ERASE_NS = 150'000'000; // 64 KiB sector erase
constexpr std::uint64_t FLASH_PAGE_PROGRAM_NS = 700'000;     // 256-byte page program
constexpr std::uint64_t FLASH_READ_BYTE_NS = 40;             // quad read at 50 MHz, 25 million bytes a second

// Sleeps in lumps, because a page takes less time than the system can sleep exactly; what one sleep took too long
// is taken off the next.
class flash_timing
{
public:
    explicit flash_timing(bool on) : on_(on) {}

    void spend(std::uint64_t nanoseconds);

private:
    bool on_;
    std::int64_t owed_ns_ = 0;
};
