// Selection of the BIOS flash through the card control block.
#pragma once

#include <cstdint>

// Selects BIOS flash 0 or 1 on the boards that can (card ids 314, 316, 318).
// 0 on success and on every other board, -1 when the register could not be written, BIOS_ERR_CARD_ID when the
// card id cannot be read.
extern "C" std::int32_t bios_sel_flash(std::uint32_t flash);
