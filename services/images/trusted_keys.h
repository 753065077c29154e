// The keys that a card trusts: the folder `keys` of the card's slot folder holds a key file NAME.pub for each, and
// the file `revoked` with the ids of keys that count no longer.
#pragma once

#include <cstddef>
#include <string>

#include "signing_key.h"

constexpr const char *SIGNING_KEYS_FOLDER = "keys";
constexpr const char *REVOKED_KEYS_FILE = "keys/revoked";
constexpr const char *PUBLIC_KEY_SUFFIX = ".pub";
constexpr std::size_t SIGNING_KEYS_MAX = 64;

// Reads the keys of this card, anew at each call; none without the folder.
// false with a text for a person when a file is not what it should be, or others could have written it; keys_out is
// not set then, and no signature counts.
[[nodiscard]] bool trusted_keys_load(trusted_keys &keys_out, std::string &problem_out);
