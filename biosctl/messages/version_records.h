// The version messages as they come from a daemon: requests put together, answers taken apart. An answer is not
// trusted: its counts, its length and its texts are checked before anything is taken from it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "bios_messages.h"
#include "daemon_request.h"

constexpr std::size_t VERSION_ENTRIES_MAX = 32; // of one card; an answer that tells of more is not understood

// MTS_OPC_BIOS_GET_MOD_BIOS_VERSION.
daemon_request encode_module_version_request(unsigned module);

// Texts are cut at their field's end, without blanks around them, and have '?' for what cannot be printed.
struct flash_versions {
    std::string label;
    std::string flash;
    std::string running;
};

enum class module_answer_kind {
    versions,
    unreachable,    // the daemon could not ask the module
    other_module,   // the answer describes another module than the one asked for
    not_understood, // too short, or more entries than it has or than any card has
};

struct module_versions_answer {
    module_answer_kind kind = module_answer_kind::not_understood;
    std::uint32_t described_module = 0;       // unless not understood
    std::vector<flash_versions> entries = {}; // of versions
    unsigned empty_entries = 0; // of versions: left out, the daemon did not understand the module's own
};

// Answer to encode_module_version_request(module).
module_versions_answer decode_module_versions(std::span<const std::uint8_t> payload, unsigned module);
