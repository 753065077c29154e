// The transfers of this process's card, with what they need around them: its clock, and the endpoints of the
// chassis.
#pragma once

#include "file_transfers.h"

// Begins with none, in place of those from before, and removes what a dead agent of the card has left.
void start_card_transfers();

// REQUIRES start_card_transfers, else there are none.
file_transfers *card_transfers();
