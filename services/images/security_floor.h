// The lowest security version that this card still takes: the number in the file `security_version` of its slot
// folder. It only rises: with each image that was written and verified, and whose signature was found good before.
// An image without a manifest has the security version 0. Nothing takes the floor down but a person who removes the
// file.
#pragma once

#include <cstdint>
#include <string>

constexpr const char *SECURITY_FLOOR_FILE = "security_version";

// Reads the floor; 0 without a file.
// false with a text for a person when the file holds no number, or others could have written it; floor_out is not
// set then, and nothing may be programmed.
[[nodiscard]] bool security_floor_load(std::uint32_t &floor_out, std::string &problem_out);

// Raises the floor to a security version that is above it, and has it on the disk when it returns; leaves it
// otherwise. Several processes may do so at once.
// false with a text for a person; the floor is then what it was.
[[nodiscard]] bool security_floor_raise(std::uint32_t security_version, std::string &problem_out);
