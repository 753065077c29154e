// The requests that an agent serves.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "answer.h"
#include "mts.h"

// The answer to a request; none for an opcode that is not served.
//   body  of the request: exactly what was sent
//   from  the endpoint that asks: a transfer of a file belongs to it
std::optional<answer> answer_to(std::uint32_t opcode, std::span<const std::uint8_t> body, mts_address_t from = {});

// Takes a message of an endpoint, answers it when it is a request, and gives it back. Whatever it says, the agent
// goes on.
//   handle   the endpoint
//   message  as mts_recv gave it
void serve(std::int32_t handle, mts_message *message);
