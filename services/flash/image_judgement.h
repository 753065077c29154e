// Whether an image may be written into a flash. All that is known is given: nothing is read here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "flash_order.h"
#include "sha256.h"

// What is known of an image file.
struct image_facts {
    std::uint64_t size_bytes = 0;
    sha256_digest sha256 = {};
    std::string version; // "v3.5.0(09/17/12)"; empty: none
};

// What is known of the flash that it is meant for.
struct flash_facts {
    std::uint32_t size_bytes = 0;
    std::string version; // empty: none can be read, or its programming has not ended
};

// What whoever wants the programming has said, and what the card's policy says.
struct image_rules {
    bool is_ordered = false;    // an order names the image, and bounds are stricter
    std::uint32_t forced = 0;   // bits of bios_force
};

// 0, or the first bios_refusal that applies.
std::uint32_t judge_image(const image_facts &image, const flash_facts &flash, const image_rules &rules);

// Whether the first version is lower than the second. Dates do not count; a text that is no version is not older.
bool is_older_version(std::string_view version, std::string_view than);
