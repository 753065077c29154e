// Requests that would put another image into a flash than the one that was asked for, and those that must wait
// until a programming has ended.
#pragma once

#include "admission.h"

// MTS_OPC_BIOS_PROGRAMMING_START is refused
//   BIOS_ERR_BUSY  while a child lives that programs (living_child.h), and while the card's agent does not serve
//   BIOS_ERR_URI   on the active supervisor, when its URI names no regular file that can be read
std::optional<refusal> admit_programming(std::int32_t handle, mts_message_t *message);

// MTS_OPC_BIOS_GET_SRC_BIOS_VERSION unpacks into the file that a programming takes its image from: refused with
// BIOS_ERR_BUSY while a programming is under way on this card, or an order for it lives.
std::optional<refusal> admit_source_version(std::int32_t handle, mts_message_t *message);
