// Which card this is: its hardware card id, its table family and, where one id has several board variants, the
// variant.
#pragma once

#include <cstdint>

extern "C" {

// Hardware card id of the local card in the low 16 bits; 0 when the platform cannot tell.
std::uint32_t get_sw_card_id();

// Reads the hw.change.bit word from the SPROM. Status of the service call, negative on failure; *value is 0 then.
std::int32_t get_hw_change_bit(std::uint32_t *value);

// Table family of a hardware card id, NO_CARD_FAMILY when it has none. Reads the SPROM for card id 182.
std::uint32_t get_sw_card_family(std::uint32_t card_id);

} // extern "C"

constexpr std::uint32_t NO_CARD_FAMILY = 9999;
