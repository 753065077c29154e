// Small text files of a card on which depends what may be programmed. One that others could have written, or that
// is not what it should be, is a problem and never as good as absent.
#pragma once

#include <cstddef>
#include <string>

constexpr std::size_t CARD_FILE_BYTES_MAX = 64 << 10;

enum class card_file_state { absent, read, unusable };

// Reads a file of this card.
//   name         below the card's slot folder: "policy"; a symbolic link is not followed
//   content_out  all of it, when it was read
//   problem_out  when it is unusable: "policy: other users may write to it"
card_file_state read_card_file(const std::string &name, std::string &content_out, std::string &problem_out);
