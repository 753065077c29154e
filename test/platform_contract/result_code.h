// A result of a platform call, or the status of an answer: compared as a number, printed as the headers name it.
#pragma once

#include <cstdint>
#include <iosfwd>

struct result_code {
    constexpr result_code(std::int32_t result) : value(result) {} // NOLINT(google-explicit-constructor)

    bool operator==(const result_code &) const = default;

    std::int32_t value;
};

// "0x4071000c (BIOS_FLASH_ERR_PROGRAM)"; small and negative numbers in decimal.
std::ostream &operator<<(std::ostream &stream, const result_code &code);
