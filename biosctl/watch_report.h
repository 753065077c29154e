// A snapshot as text, and as JSON. Pure functions of it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "watch_snapshot.h"

struct watch_space {
    unsigned columns = 0;
    unsigned lines = 0;
};

// Heading, table and remarks, a line each without newline.
//   space  of the terminal; none: the table is as wide and as long as it has to be. Too wide a table is told in
//   fewer
//          words, then without the roles, then its lines are cut and end with ~; of too long a one the idle cards
//          are left out first. Every line is shorter than columns and there are fewer lines than the terminal has,
//          so that nothing wraps or scrolls
std::vector<std::string> watch_lines(const watch_snapshot &snapshot, std::optional<watch_space> space);

// One object; see doc/biosctl.md.
nlohmann::ordered_json watch_json(const watch_snapshot &snapshot);
