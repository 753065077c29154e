// The messages about a programming: the request, its progress and its end. What is too short is no message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bios_messages.h"
#include "client.h"

constexpr std::size_t IMAGE_URI_BYTES_MAX = sizeof(bios_programming_req_t::uri) - 1; // the terminator is needed

struct programming_request {
    unsigned module = 0;                   // 1..232
    std::optional<std::string> image = {}; // URI, at most IMAGE_URI_BYTES_MAX bytes; none: the image tree
    std::uint8_t type = 0;                 // flash instance
};

// MTS_OPC_BIOS_PROGRAMMING_START.
daemon_request encode_programming_request(const programming_request &request);

// Has the notices about ends delivered to an endpoint. false with errno.
[[nodiscard]] bool listen_for_end_notices(client_endpoint &endpoint);

// The following are none for messages of other opcodes, too.

// MTS_OPC_BIOS_PROGRAMMING_PROGRESS.
struct told_progress {
    std::uint32_t phase = 0;
    std::uint32_t percent = 0; // 0..100
    std::uint32_t attempt = 0;
};
std::optional<told_progress> decode_progress(const received_message &message);

// MTS_OPC_BIOS_PROGRAMMING_NOTIFY: to whoever listens.
struct told_end {
    std::uint32_t result = 0;
    unsigned module = 0;
};
std::optional<told_end> decode_end_notice(const received_message &message);

// MTS_OPC_BIOS_PROGRAMMING_DONE: to the requester alone; the result.
std::optional<std::uint32_t> decode_done(const received_message &message);
