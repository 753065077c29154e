// Whether a flash still holds what was verified in it last. The record of its order tells what that was, until
// there is another order: one that comes to nothing takes the record's place, and the flash's events tell it then.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "flash_event.h"
#include "flash_order.h"

struct verified_image {
    std::string sha256; // 64 hexadecimal digits
    std::uint64_t size_bytes = 0;
    std::string how; // it was programmed, for people

    bool operator==(const verified_image &) const = default;
};

// By a record that is of nothing else.
std::optional<verified_image> verified_by(const flash_order &order);

// By the last programming that the events tell of; none when they do not name its image, or may not tell of all.
std::optional<verified_image> verified_by(std::span<const flash_event> events);

// How the primary flash of a card was programmed that has changed since; empty otherwise.
std::string how_changed_flash_was_programmed(std::uint32_t node);
