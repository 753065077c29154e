// Putting a manifest into an image, and signing it.
#pragma once

#include <cstdint>
#include <string>

#include "image_manifest.h"
#include "signing_key.h"

// The manifest of an image for a family's cards.
//   version  as it is shown; empty: that of the image's x86n header
// Throws image_error when the family is unknown, or there is no version.
image_manifest make_manifest(const std::string &image, const std::string &family, std::uint32_t security_version,
                             const std::string &version);

// Puts a manifest at the end of the longest run of erased bytes, with its digest, and calculates a PPC image's own
// digest anew. Throws image_error: the image has a manifest, or no room for one, or is a PPC image whose digest was
// wrong before.
void put_manifest(std::string &image, const image_manifest &manifest);

// Signs an image by the key with this seed, in the place of an earlier signature. Throws image_error without an
// intact manifest.
void put_signature(std::string &image, const signing_key &seed);
