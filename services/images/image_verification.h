// The check of an image's signature for processes that have no library for it: the agent of this card makes it.
#pragma once

#include <cstdint>
#include <string>

#include "sha256.h"

struct image_verification {
    std::uint32_t status = 0;  // of AGENT_OPC_VERIFY_IMAGE; AGENT_ERR_UNREADABLE as well when no agent answers
    sha256_digest sha256 = {}; // these three when the status is AGENT_OK: of the bytes that were checked
    std::uint32_t family = 0;
    std::uint32_t security_version = 0;
};

// Asks the agent of this card about the image in a file, by an endpoint of its own. Blocks while the agent reads
// the file, and no longer than IMAGE_VERIFICATION_LIMIT_S.
//   path  absolute, of a regular file, shorter than AGENT_PATH_BYTES
// Only an image with this SHA-256 was checked: whoever programs compares it with that of the bytes that are
// written.
constexpr std::uint32_t IMAGE_VERIFICATION_LIMIT_S = 30;
image_verification verify_image(const std::string &path);
