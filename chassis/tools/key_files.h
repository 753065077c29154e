// Key files of a signer.
#pragma once

#include <string>
#include <vector>

#include "signing_key.h"

// Makes a key pair: the secret half for its owner's eyes alone, and the public half for cards. Both files are new;
// when one cannot be made, neither is left. Returns the key's id. Throws image_error.
std::string make_key_files(const std::string &secret_path, const std::string &public_path);

// Throws image_error when it is no such file, and for a secret half that others may read.
signing_key read_secret_key(const std::string &path);
signing_key read_public_key(const std::string &path);

// Throws image_error.
std::vector<image_key_id> read_revoked_keys(const std::string &path);
