// What a copy is made of: a flash or a delivered file, opened.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "agent_messages.h"
#include "sha256.h"

struct piece_source {
    std::string subject; // "flash 0", "file a.bin": the same for the same thing
    std::uint64_t size_bytes = 0;

    // Reads bytes that are there. Another status than AGENT_OK when they cannot be read, or are not what they were.
    std::function<agent_status(std::uint64_t offset, std::uint8_t *bytes_out, std::size_t count)> read;

    // Whether all that was read, with this digest, is one state of the thing.
    std::function<agent_status(const sha256_digest &digest)> confirm;
};
