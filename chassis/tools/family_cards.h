// The cards of a family, as the daemon knows them: its own function says to which family a card belongs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct family_cards {
    std::uint32_t family = 0; // of the table of BIOS flashes
    std::vector<std::uint16_t> card_ids;
};

// Throws image_error for the name of no family.
family_cards cards_of_family(const std::string &name);
