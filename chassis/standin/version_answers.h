// Answers to MTS_OPC_BIOS_GET_LC_BIOS_VERSION in the forms that modules send.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

constexpr std::size_t GARBAGE_MAX_BYTES = 2000;

struct module_versions {
    std::string flash; // in the flash now; empty: none
    std::string running;
};

// bios_get_lc_version_t alone.
std::vector<std::uint8_t> short_version_answer(const module_versions &versions);

// bios_compat_version_msg_t, a TLV of type 0 for each row behind the first, and one of type 1. The records stand
// behind each other, padded to 4 bytes. All rows have the same versions and labels of their own: "swid-bios",
// "swid-bios-2", "swid-bios-3".
//   rows  at least 1
std::vector<std::uint8_t> full_version_answer(const module_versions &versions, std::uint32_t rows);

// 0 to GARBAGE_MAX_BYTES random bytes.
std::vector<std::uint8_t> garbage_version_answer(std::mt19937 &random);
