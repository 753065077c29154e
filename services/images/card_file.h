// Small text files of a card on which depends what may be programmed. One that others could have written, or that
// is not what it should be, is a problem and never as good as absent.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

constexpr std::size_t CARD_FILE_BYTES_MAX = 64 << 10;

enum class card_file_state { absent, read, unusable };

// Reads a file of this card.
//   name         below the card's slot folder: "policy"; a symbolic link is not followed
//   content_out  all of it, when it was read
//   problem_out  when it is unusable: "policy: other users may write to it"
card_file_state read_card_file(const std::string &name, std::string &content_out, std::string &problem_out);

// Calls use with the number and the text of each line that is neither empty nor a comment (#), without the blanks
// around it, until use returns false. false then.
bool each_line(std::string_view text, const std::function<bool(unsigned number, std::string_view line)> &use);

// The text without the blanks around it.
std::string_view trimmed(std::string_view text);
