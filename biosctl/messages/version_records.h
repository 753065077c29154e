// The version messages as they come from a daemon: requests put together, answers taken apart. An answer is not
// trusted: its counts, its length and its texts are checked before anything is taken from it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "bios_messages.h"
#include "daemon_request.h"
#include "mts.h"

constexpr std::size_t VERSION_ENTRIES_MAX = 32; // of one card; an answer that tells of more is not understood
constexpr std::size_t IMAGE_PATH_BYTES_MAX =
    sizeof(bios_src_version_req::image_path) - 1; // the terminator is needed
constexpr mts_address_t NO_PROGRESS_NOTICES{MTS_NODE_LISTENERS, 0};

// MTS_OPC_BIOS_GET_MOD_BIOS_VERSION.
daemon_request encode_module_version_request(unsigned module);

// MTS_OPC_BIOS_GET_SRC_BIOS_VERSION.
//   image_path  of a system image on the card, at most IMAGE_PATH_BYTES_MAX bytes; none: the card's image tree
//   progress    where notices go
daemon_request encode_source_version_request(const std::optional<std::string> &image_path, mts_address_t progress);

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

struct source_version {
    std::string label;
    std::string version;
    std::uint32_t image_format = 0;
};

struct source_versions_answer {
    std::uint32_t status = 0;
    std::vector<source_version> entries = {};
};

// Answer to encode_source_version_request; also one without payload, which tells of no versions. None when it is
// not understood.
std::optional<source_versions_answer> decode_source_versions(std::span<const std::uint8_t> payload);

// Percents of MTS_OPC_BIOS_SRC_VERSION_PROGRESS, 0..100; none of another opcode. The number stands in the sender's own byte order, which is
// this machine's.
std::optional<std::uint32_t> decode_source_progress(std::uint32_t opcode, std::span<const std::uint8_t> payload);

// "x86n", "x86", ...
std::string image_format_text(std::uint32_t image_format);
