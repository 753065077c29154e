// What has to be programmed to bring the cards in step with the images that ship for them; pure functions of the
// versions.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "card_versions.h"
#include "outcome.h"
#include "text_report.h"

enum class sync_action {
    in_step,
    reboot_pending,     // the flash is in step, another version runs
    program_newer,      // the image is newer than the flash
    program_older,      // the image is older, and that is wanted
    program_no_version, // the flash holds no version
    program_again,      // the flash may be half written
    left_newer,         // the image is older, and that is not wanted
    left_no_way,        // out of step, but the active supervisor cannot bring the image there
    left_unknown,
    left_unconfirmed, // its agent does not answer
    left_unreachable,
    left_busy, // is being programmed
};

bool has_to_be_programmed(sync_action action);
bool is_in_step(sync_action action); // as far as its flash goes

// Where a card stands, in the order of the programming.
enum class sync_role { standby, other, active };

struct sync_card {
    card_report versions = {};
    sync_role role = sync_role::other;
};

struct sync_rules {
    bool allow_older = false;
    std::optional<unsigned> only_module = {}; // the one that the active supervisor programs, if there is but one
};

struct sync_step {
    unsigned module = 0;
    sync_action action = sync_action::left_unknown;
    std::string flash = {};   // version in the flash
    std::string shipped = {}; // version in the image
    std::vector<std::string> reasons = {};
};

// A step for each card, in the order of the work: the standby supervisor, other modules, the active supervisor.
std::vector<sync_step> plan_sync(std::vector<sync_card> cards, const sync_rules &rules);

const char *action_text(sync_action action);
text_report plan_text(std::span<const sync_step> plan); // a table and, below, why cards are left as they are
nlohmann::ordered_json plan_json(std::span<const sync_step> plan);
