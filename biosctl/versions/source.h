// biosctl source: the BIOS versions that a card finds in its image tree or in a system image on it.
#pragma once

#include <optional>
#include <string>

#include "outcome.h"
#include "version_records.h"

struct source_options {
    std::optional<std::string> image_path = {}; // on the card, as of image_path_of; none: the card's image tree
    std::optional<unsigned> via = {};           // the card; none: the active supervisor
    std::optional<unsigned> timeout_s = {};     // the longest wait for the answer
};

// The path on the card that an image stands for: "bootflash:NAME", "bootflash:/NAME" and "bootflash:///NAME" lie in
// /bootflash, an absolute path is meant as it is. None for anything else, for what is too long for a request, and
// for characters that the daemon refuses; problem_out tells which.
std::optional<std::string> image_path_of(const std::string &image, std::string &problem_out);

// What is told about an answer; a pure function of it.
outcome report_source(const source_options &options, unsigned slot, const source_versions_answer &answer);

outcome run_source(const source_options &options, bool json);
