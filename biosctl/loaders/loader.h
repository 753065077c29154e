// biosctl loader: has the boot loader of a supervisor installed, and fetches the files of the installed one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "loader_messages.h"
#include "outcome.h"

struct loader_install_options {
    std::string image_path = {};            // on the card, at most LOADER_IMAGE_PATH_BYTES_MAX bytes
    bool remove_image = false;              // when done, whatever came of it
    std::optional<unsigned> via = {};       // the card; none: the active supervisor
    std::optional<unsigned> timeout_s = {}; // the longest wait for the end; none: as long as the daemon lives
};

// What is told about a result of the daemon; a pure function of it.
outcome report_loader_install(const loader_install_options &options, unsigned slot, std::uint32_t result);

outcome run_loader_install(const loader_install_options &options, bool json);

struct loader_file_options {
    loader_file file = loader_file::loader;
    std::string output = {}; // path
    bool overwrite = false;
    std::optional<std::uint32_t> size_bytes = {}; // how much of the file; none: all of it
    std::optional<unsigned> via = {};             // the card; none: the active supervisor
    std::optional<unsigned> timeout_s = {};       // the longest wait for one answer
};

outcome run_loader_file(const loader_file_options &options, bool json);
