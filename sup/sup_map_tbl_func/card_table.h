// The constant table of BIOS flashes per card family and a card's own copy of its rows.
#pragma once

#include <cstdint>

#include "bios_flash_entry.h"
#include "free_block.h"

extern "C" {

extern const bios_flash_entry bios_flash_entry_tbl[];
extern const std::uint32_t max_bios_id_entries;

// Copies the rows of a hardware card id's family, in table order. The second argument is 0 and not used.
// A block that the caller owns (free), or null when the card has no family, no row matches or memory runs out.
bios_card_table *bios_get_card_id_ent(std::uint32_t card_id, std::uint32_t reserved);

} // extern "C"

using owned_card_table = owned_block<bios_card_table>;
