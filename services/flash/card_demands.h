// What an image is judged against, besides the flash's size: what the card is, what it demands, what the flash
// holds.
#pragma once

#include <string>

#include "flash_device.h"
#include "image_judgement.h"

// Reads the facts of this card: its id, its family, its policy, its security floor. The rest of facts_out stays.
// false when one that has to be known cannot be found out: nothing may be programmed.
[[nodiscard]] bool read_card_demands(flash_facts &facts_out);

// The version in a flash; empty when it has none that can be read, or its programming has not ended.
std::string version_in_flash(flash_device &flash);
