// The versions in the flashes of this card, and the one that it was started from.
#pragma once

#include <cstdint>
#include <string>

#include "answer.h"

struct flash_reading {
    bool is_there = false;
    std::uint32_t state = 0; // bits of agent_flash_state, before and after the flash was read
    std::string version;     // empty: none can be read, or the flash is marked or has a writer
};
flash_reading read_flash_version(unsigned instance);

answer version_answer(const agent_flash_req_t &request); // AGENT_OPC_GET_VERSION
answer versions_answer();                                // AGENT_OPC_GET_VERSIONS
