// The launcher's verb that shows the history of a card; the chassis is open.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "chassis_diagnostics.h"

// An event's text as one line of printable ASCII characters: a backslash is doubled, every other character is
// "\n", "\r", "\t" or "\xHH". Texts quote messages of other cards, which must not reach a terminal.
std::string escaped_text(const std::string &text);

// The last events at most, oldest first: lines, or with json one object.
//   events  of the whole ring, oldest first
//   last    how many are shown; none: all
std::string history_text(unsigned slot, const std::vector<chassis_history_event> &events,
                         std::optional<unsigned> last, bool json);

// Reads the history of a card and makes the text. Throws launcher_error.
std::string show_history(unsigned slot, std::optional<unsigned> last, bool json);
