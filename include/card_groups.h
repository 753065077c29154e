// Groups of hardware card ids that the daemon treats alike.
#pragma once

#include <cstdint>

// The boards whose BIOS flash is selected through a card control register.
constexpr bool has_flash_selection(std::uint32_t card_id)
{
    return card_id == 314 || card_id == 316 || card_id == 318;
}

// The tarvik-a supervisors: whatever module a request names, the BIOS set of module TARVIK_A_MODULE_NUM is the one
// meant, and the own card id, not the module's, selects the flash entries.
constexpr bool is_tarvik_a_supervisor(std::uint32_t card_id)
{
    return card_id == 183 || card_id == 282 || has_flash_selection(card_id);
}

constexpr std::uint32_t TARVIK_A_MODULE_NUM = 18;
