// Who holds a module lock, in words.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "chassis_module_lock.h"

// The holder of a node's module lock; none when nobody holds it or it cannot be told.
std::optional<chassis_module_lock_holder> find_lock_holder(std::uint32_t node);

// "held by slot 27, process 41, since 2024-05-01T10:00:00Z, for a programming".
std::string holder_text(const chassis_module_lock_holder &holder);

// What is programmed: the cards' agents tell of whoever changes a flash, with or without a module lock, and a lock
// that was taken for a programming tells that one begins.
struct programming_locks {
    bool readable = true;                       // false: nothing is known
    bool any = false;                           // a programming runs in the chassis, or may be beginning
    std::vector<std::uint32_t> programmed = {}; // nodes whose flashes are being programmed

    bool has(std::uint32_t node) const;
};
programming_locks find_programming();

// What the holders alone tell; a pure function of them. The supervisor that programs another module holds its own
// module's lock as well, and is not being programmed.
programming_locks programming_of(std::span<const chassis_module_lock_holder> holders);
