// The life of an agent: it waits for a message or for the next moment at which a lock or a transfer needs
// something, and never for anybody.
#pragma once

#include <cstdint>

enum class inventory_kind : std::uint8_t {
    common, // of all cards: somebody else keeps it
    own,    // of this card, kept by what the agents tell each other (card_roster.h)
};

// Serves an endpoint for ever. The card is that of this process.
[[noreturn]] void serve_card(std::int32_t handle, inventory_kind inventory);
