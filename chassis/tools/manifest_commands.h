// The commands of bios_image about manifests and signatures.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "image_manifest.h"

struct manifest_options {
    std::string output;
    std::string image;
    std::string family;
    std::string version;
    std::uint32_t security_version = 0;
};

struct key_options {
    std::string secret;
    std::string public_half;
};

struct sign_options {
    std::string output;
    std::string key;
    std::string image;
};

struct verify_options {
    std::vector<std::string> keys;
    std::string revoked;
    std::string image;
};

// What the commands' options are put into; lasts as long as the command line is parsed.
struct manifest_command_line {
    manifest_options manifest;
    key_options keygen;
    sign_options sign;
    verify_options verify;
};

void add_manifest_commands(CLI::App &app, manifest_command_line &line);

// What the manifest of an image says, in lines as those of "bios_image show"; nothing without one. That a key is
// named does not mean that the signature is good. Throws image_error for a damaged one.
std::string manifest_text(const image_reading &reading, const std::string &path);
