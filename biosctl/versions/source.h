// biosctl source: the BIOS image that a card finds in its image tree or in a system image on it, as its agent
// unpacks it; and what is wrong with it when there is none.
#pragma once

#include <optional>
#include <string>

#include "agents.h"
#include "outcome.h"

struct source_options {
    std::optional<std::string> image_path = {}; // on the card, as of image_path_of; none: the card's image tree
    std::optional<unsigned> via = {};           // the card; none: the active supervisor
    std::optional<unsigned> timeout_s = {};     // the longest wait for the answer
};

// What goes into a request for an image behind FILE_URI; an absolute path.
constexpr std::string_view FILE_URI = "file://";
constexpr std::size_t IMAGE_PATH_BYTES_MAX = AGENT_URI_BYTES - FILE_URI.size();

// The path on the card that an image stands for: "bootflash:NAME", "bootflash:/NAME" and "bootflash:///NAME" lie in
// /bootflash, an absolute path is meant as it is. None for anything else, for what is too long for a request, and
// for characters that the daemon refuses; problem_out tells which.
std::optional<std::string> image_path_of(const std::string &image, std::string &problem_out);

// What is told about an answer; a pure function of it.
outcome report_source(const source_options &options, unsigned slot, const image_reply &reply);

outcome run_source(const source_options &options, bool json);
