// What a programming request asks for, and its body.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "bios_messages.h"

constexpr std::size_t IMAGE_URI_BYTES_MAX = sizeof(bios_programming_req_t::uri) - 1; // the terminator is needed

struct program_options {
    unsigned module = 0;                    // 1..232
    std::optional<std::string> image = {};  // URI, at most IMAGE_URI_BYTES_MAX bytes; none: the image tree
    std::uint8_t type = 0;                  // flash instance
    std::optional<unsigned> via = {};       // slot whose daemon is asked; none: the active supervisor
    std::optional<unsigned> timeout_s = {}; // none: as long as the daemon lives
};

using program_request_body = std::array<std::uint8_t, sizeof(bios_programming_req_t)>;

program_request_body encode_program_request(const program_options &options);
