// A snapshot as text, and as JSON. Pure functions of it.
#pragma once

#include <optional>
#include <vector>

#include <nlohmann/json.hpp>

#include "styled_text.h"
#include "watch_snapshot.h"

struct watch_space {
    unsigned columns = 0;
    unsigned lines = 0;
};

// Heading, table and remarks, a line each without newline.
//   space  of the terminal; none: the table is as wide and as long as it has to be. A table that is too wide is
//          worded more briefly, then has no roles, then its lines are cut and end with ~. From one that is too long
//          the idle cards are left out first. Every line is shorter than columns and there are fewer lines than the
//          terminal has, so that nothing wraps or scrolls
std::vector<styled_text> watch_lines(const watch_snapshot &snapshot, std::optional<watch_space> space);

// One object; see doc/biosctl.md.
nlohmann::ordered_json watch_json(const watch_snapshot &snapshot);
