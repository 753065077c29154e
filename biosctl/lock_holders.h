// Who holds a module lock, in words.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "chassis_module_lock.h"

// The holder of a node's module lock; none when nobody holds it or it cannot be told.
std::optional<chassis_module_lock_holder> find_lock_holder(std::uint32_t node);

// "held by slot 27, process 41, since 2024-05-01T10:00:00Z, for a programming".
std::string holder_text(const chassis_module_lock_holder &holder);
