// Which module locks are held in a chassis, and by whom.
#pragma once

#include <cstdint>
#include <map>

// Slot of the holder by the lock's node id: slot * 256 + 1 of a supervisor, + 2 of any other card.
// The test has to be attached to the chassis. Throws when the locks cannot be looked at.
using held_locks = std::map<std::uint32_t, unsigned>;
held_locks locks_held();
