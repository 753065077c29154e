// What biosctl show and audit tell about the versions collected; pure functions of them.
#pragma once

#include "card_versions.h"
#include "outcome.h"

enum class show_kind {
    show,  // succeeds whatever the versions are, when the serving daemon answers
    audit, // fails when any flash is not in step
};

// A line per flash.
table version_table(const std::vector<card_report> &cards);

// An element for each card: module, flashes with their versions and verdicts, reasons.
nlohmann::ordered_json json_of_cards(const std::vector<card_report> &cards);

outcome report_versions(const chassis_report &versions, show_kind kind);
