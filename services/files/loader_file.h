// Boot-loader files. A loader file carries its version in its first 4 KiB, between a tag and a closing "$$":
//
//     $$SRG-LOADER-VERSION: 1.7.3$$
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

constexpr std::size_t LOADER_HEAD_BYTES = 4096; // of which the version is a part
constexpr std::size_t LOADER_VERSION_CHARACTERS = 255;

// Version in the head of a loader file: 1 to 255 printable characters, a part of the head; empty when there is
// none.
std::string_view loader_version_in(std::string_view head);

// The tag with a version. What loader_version_in() would not find again is no version: then empty.
std::string loader_version_tag(const std::string &version);
