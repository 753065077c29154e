// What biosctl show and audit tell about the versions collected; pure functions of them.
#pragma once

#include "card_versions.h"
#include "outcome.h"

enum class show_kind {
    show,  // succeeds whatever the versions are
    audit, // fails when any flash is not in step
};

constexpr std::size_t SHOW_TABLE_COLUMNS = 80; // no line of the table is longer

// A line per flash. A version that does not fit is cut and ends with '~'; one that could not be read is '-'.
std::string version_table(const std::vector<card_report> &cards);

// An element for each card: module, flashes with their versions and verdicts, reasons.
nlohmann::ordered_json json_of_cards(const std::vector<card_report> &cards);

// serving_tells_one_module: of a kind whose daemon tells of one module only, whatever module it is asked for
outcome report_versions(const chassis_report &versions, show_kind kind, bool serving_tells_one_module);
