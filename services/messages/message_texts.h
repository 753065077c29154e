// Texts of messages that the daemon writes into its log as they stand. They come from other cards: what cannot be
// printed becomes a question mark before the daemon sees it. No path and no version that is valid has such a
// character.
#pragma once

#include "datagram_driver.h"

// Of a request to the daemon, or of an answer to one of its own requests. Other messages are left alone.
void make_texts_printable(mts_message_t &message);
