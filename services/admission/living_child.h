// A card programs one flash at a time: while a child lives that an earlier request to program has forked, also of a
// daemon that has ended since, another request is refused. Without this a daemon that is not active would fork
// another child, and report the end of the first one to nobody.
#pragma once

#include <cstdint>

// Whether a request to program is in the way of such a child. The active supervisor's daemon refuses by itself
// while its own child lives.
bool living_child_refuses(std::int32_t handle);

// Whether a child lives, whoever has forked it. REQUIRES: this is the daemon's process, and it runs no command.
bool is_programming_under_way();
