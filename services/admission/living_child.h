// A card programs one flash at a time: a request to program is refused while a child lives that an earlier one has
// forked, also of a daemon that has ended since. Without this a daemon that is not active would fork another child,
// and report the end of the first one to nobody.
#pragma once

#include <cstdint>

#include "mts.h"

// Whether the message is such a request; then it has been answered with BIOS_ERR_BUSY. The active supervisor's
// daemon refuses by itself while its own child lives.
bool living_child_refuses(std::int32_t handle, mts_message_t *message);
