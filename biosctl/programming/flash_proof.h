// The proof that a flash holds the image that was asked for: not what is heard of a programming, which anybody may
// say, but what the agents of the cards find when they look.
#pragma once

#include <string>

#include "agents.h"
#include "orders.h"
#include "programming_messages.h"
#include "programming_result.h"

// The image that the request will bring, as the card tells that has it. To be asked before the request: it may be
// gone afterwards.
image_reply find_asked_image(const program_subject &subject, const programming_request &request);

// Looks at the flash of the module that was programmed.
//   order  of the programming; null: it has not begun
flash_proof prove(const program_subject &subject, unsigned instance, const told_image &wanted,
                  const placed_order *order);

// Whether the active supervisor unpacks the image, for itself or for the standby supervisor. Any other card
// programs what lies ready on it.
bool is_unpacked(const program_subject &subject);

// Whether it copies the image to the card that programs it.
bool is_copied(const program_subject &subject);

// The card whose agent knows the image.
unsigned slot_with_image(const program_subject &subject);
