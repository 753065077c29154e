// Whether an image may be written into a flash. All that is known is given: nothing is read here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "agent_messages.h"
#include "card_policy.h"
#include "image_manifest.h"

// What is known of an image file.
struct image_facts {
    std::uint64_t size_bytes = 0;
    std::string version; // "v3.5.0(09/17/12)"; empty: none
    image_manifest_state manifest_state = image_manifest_state::none;
    image_manifest manifest = {};                   // of one that is intact
    std::uint32_t signature = AGENT_ERR_NOT_SIGNED; // status of AGENT_OPC_VERIFY_IMAGE
};

// What is known of the flash that it is meant for, and of its card.
struct flash_facts {
    std::uint32_t size_bytes = 0;
    std::string version = {};         // empty: none can be read, or its programming has not ended
    std::uint32_t card_id = 0;        // 0: not known
    std::uint32_t family = 0;         // likewise
    std::uint32_t security_floor = 0; // no image with a lower security version is taken
    card_policy policy = {};
};

// What whoever wants the programming has said.
struct image_wish {
    bool is_ordered = false;  // an order names the image, and bounds are stricter
    std::uint32_t forced = 0; // bits of bios_force
};

// 0, or the first bios_refusal that applies.
std::uint32_t judge_image(const image_facts &image, const flash_facts &flash, const image_wish &wish);

// Whether the first version is lower than the second. Dates do not count; a text that is no version is not older.
bool is_older_version(std::string_view version, std::string_view than);
