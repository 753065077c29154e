// The requests that an agent serves.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "answer.h"

// The answer to a request; none for an opcode that is not served.
//   body  of the request: exactly what was sent
std::optional<answer> answer_to(std::uint32_t opcode, std::span<const std::uint8_t> body);

// Takes a message of an endpoint, answers it when it is a request, and gives it back. Whatever it says, the agent goes
// on.
//   handle   the endpoint
//   message  as mts_recv gave it
struct mts_message;
void serve(std::int32_t handle, mts_message *message);
