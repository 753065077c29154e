// The images that this card has for a card, and which of the things that can be wrong with one is.
#pragma once

#include "answer.h"

// AGENT_OPC_GET_IMAGE. Unpacks the image for it: for a worker.
answer image_answer(const agent_image_req_t &request);

// Removes what workers have left behind that were killed while they unpacked.
void remove_unpacked_leftovers();
