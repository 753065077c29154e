// The versions of the chassis' cards, as their agents read them: in the flash just now, running since the card was
// started, and in the image that ships for the card. The image of a supervisor is the one that the serving
// supervisor would bring; that of another card is the one of its own image tree. Agents unpack an image in a place
// of their own, so that nothing of this is in anybody's way.
//
// A card whose agent does not answer is asked through the serving supervisor's daemon. What that says is shown, and
// is not confirmed: a daemon tells the running version for that in the flash while it programs.
#pragma once

#include <string>
#include <vector>

#include "verdict.h"

struct flash_report {
    std::string label = {};
    version_facts facts = {};
    verdict kind = verdict::unknown;
};

struct card_report {
    unsigned module = 0;
    std::vector<flash_report> flashes = {};   // at least one; without texts when nothing is known
    std::string started_from = {};            // "primary" or "alternate"; empty: not known
    std::vector<std::string> log_faults = {}; // of its event logs, when they were looked at
    std::vector<std::string> reasons = {};    // why something is not known, or is not what it seems
    bool gets_image = true;                   // somebody brings it the image that ships for it
};

struct chassis_report {
    unsigned serving_slot = 0;
    std::vector<card_report> cards = {}; // as the modules were named
    int serving_error = 0;               // not 0: the serving daemon does not answer, as in request_answer
};

// The longest wait for one answer, when the operator names none.
constexpr unsigned VERSIONS_TIMEOUT_S = 30;

// These look closer at the cards whose agents answer: at the event logs, and whether each flash still holds what
// was verified in it last.
void check_event_logs(chassis_report &report);
void check_flashes(chassis_report &report);

// Asks for the modules' versions.
//   timeout_s  the longest wait for one answer
chassis_report collect_versions(unsigned serving_slot, const std::vector<unsigned> &modules, unsigned timeout_s);
