// Keys that images are signed with, as files. A key file is a text of one line, beside comments behind a #:
//
//     ed25519-public HEX     32 bytes, the key that signatures are checked with
//     ed25519-secret HEX     32 bytes, the seed of the key pair; never on a card
//
// The id of a key is the beginning of the SHA-256 of its public half, and what a manifest names it by.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "image_manifest.h"

constexpr const char *PUBLIC_KEY_KIND = "ed25519-public";
constexpr const char *SECRET_KEY_KIND = "ed25519-secret";

using signing_key = std::array<std::uint8_t, 32>; // the public half, or the seed

image_key_id signing_key_id(const signing_key &public_key);

// 16 hexadecimal digits.
std::string signing_key_id_text(const image_key_id &id);

// The key in the text of a key file of a kind; nothing when the text is not that of such a file.
std::optional<signing_key> signing_key_parse(std::string_view text, std::string_view kind);

// The text that signing_key_parse reads.
std::string signing_key_format(const signing_key &key, std::string_view kind);

// The keys that somebody trusts.
struct trusted_keys {
    std::vector<signing_key> keys; // public halves, in no order
    std::vector<image_key_id> revoked;

    const signing_key *find(const image_key_id &id) const; // null: there is none of this id
    bool is_revoked(const image_key_id &id) const;
};

// The ids in the text of a file of revoked keys: one in each line, beside comments.
// false with the problem: "line 2: not the id of a key: x".
[[nodiscard]] bool revoked_keys_parse(std::string_view text, std::vector<image_key_id> &revoked_out,
                                      std::string &problem_out);
