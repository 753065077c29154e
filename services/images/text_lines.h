// Texts of lines with comments, as persons write them.
#pragma once

#include <functional>
#include <string_view>

// Calls use with the number and the text of each line that is neither empty nor a comment (#), without the blanks
// around it, until use returns false. false then.
bool each_line(std::string_view text, const std::function<bool(unsigned number, std::string_view line)> &use);

// The text without the blanks around it.
std::string_view trimmed(std::string_view text);
