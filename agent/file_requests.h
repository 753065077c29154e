// The requests about files, from AGENT_OPC_PUT_FILE to AGENT_OPC_REMOVE_FILE: what their bodies say.
#pragma once

#include <cstdint>
#include <span>

#include "answer.h"
#include "file_transfers.h"

bool is_about_files(std::uint32_t opcode);

// The answer to a request of an endpoint. REQUIRES: is_about_files(opcode).
//   body  of the request: exactly what was sent
answer answer_about_files(file_transfers &transfers, mts_address_t from, std::uint32_t opcode,
                          std::span<const std::uint8_t> body);
