// Files of a card's root that say what the daemon without pauses (without_pauses.cpp) waits for.
#pragma once

// Milliseconds that a programming child waits in place of each second.
constexpr const char *CHILD_RECEIVE_MS = "/mnt/pss/child_receive_ms";

// While it is there, the card's daemon pauses like the shipped one.
constexpr const char *PAUSES = "/mnt/pss/pauses";
