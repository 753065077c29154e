// The version messages of the daemons as bytes, put together from their parts.
#pragma once

#include <cstdint>
#include <string>

#include "mts.h"

constexpr std::uint32_t OWN_CARD_ID = 19;    // "bios id" of a daemon's own card
constexpr std::uint32_t FORWARDED_KIND = 11; // flash kind of every entry that a supervisor tells
constexpr const char *FLASH_LABEL = "swid-bios";

std::string be32_bytes(std::uint32_t value);
std::string text_bytes(const std::string &text, std::size_t field_bytes = 128); // padded with zeros

// What the flash holds and what runs.
struct told_versions {
    std::string flash;
    std::string running;
    std::string label = FLASH_LABEL;
};

std::string module_version_request(std::uint32_t module);

// Payload of the answer for a module, without its first word, which is undefined: the entries follow.
std::string module_version_header(std::uint32_t module, std::uint32_t entries, std::uint32_t bios_id);
std::string version_entry(const told_versions &versions, std::uint32_t kind = FORWARDED_KIND);

// All of the answer of one entry, without the first word.
std::string module_version_answer(std::uint32_t module, std::uint32_t bios_id, const told_versions &versions);

// The first twelve bytes of the answer when the versions are not to be had; a word that is undefined follows.
std::string version_failure(std::uint32_t module);
constexpr std::size_t VERSION_FAILURE_BYTES = 16;

// The answer to a line card's own version request, of one flash.
std::string card_version_answer(const told_versions &versions);

constexpr mts_address_t NO_NOTICES = {MTS_NODE_LISTENERS, 0};

// image_path: 256 bytes, or less and padded with zeros; not looked at when the image tree is wanted.
std::string source_version_request(bool image_tree, const std::string &image_path, mts_address_t progress);
std::string source_version_answer(const std::string &version);
constexpr std::size_t SOURCE_ANSWER_BYTES = 8 + 268; // of a card with one flash, whether it is filled or not
