// Whether a programming finds room on the card's boot flash for its image: one that it unpacks there, or one that
// another card copies to it.
#pragma once

#include <cstdint>
#include <span>

// How many bytes are missing for files of these sizes, which lie there at the same time; 0: none, or it cannot be
// found out. What an earlier programming has left there is removed before and counts as room.
//   temporary_image  path of the unpacked image; the packed one lies beside it
std::uint64_t missing_room(const char *temporary_image, std::span<const std::uint64_t> file_bytes);

// Likewise for a copy of an image. It is written beside what lies there, which goes only when the copy is whole.
//   temporary_image  path that the copy gets
std::uint64_t missing_room_for_copy(const char *temporary_image, std::uint64_t image_bytes);
