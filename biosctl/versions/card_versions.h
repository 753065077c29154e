// The versions of the chassis' cards: in the flash and running, as the serving supervisor's daemon tells them, and
// in the image, as each card's own daemon reads it from its image tree.
//
// A daemon that reads image versions serves nothing else meanwhile, and unpacks into the file that a programming
// unpacks into; through the files that daemons hand to the standby supervisor this holds for that card too. So the
// images are read last, the standby's alone, and none while a programming runs.
#pragma once

#include <string>
#include <vector>

#include "verdict.h"
#include "version_records.h"

struct flash_report {
    std::string label = {};
    version_facts facts = {};
    verdict kind = verdict::unknown;
};

struct card_report {
    unsigned module = 0;
    std::vector<flash_report> flashes = {}; // at least one; without texts when the card told none
    std::vector<std::string> reasons = {};  // why something is not known, or is not what it seems
};

struct chassis_report {
    unsigned serving_slot = 0;
    std::vector<card_report> cards = {}; // as the modules were named
    int serving_error = 0; // not 0: the serving daemon could not be asked at all, as in request_answer; no cards
};

// The longest wait for one answer, when the operator names none.
constexpr unsigned VERSIONS_TIMEOUT_S = 30;

// Asks for the modules' versions.
//   timeout_s  the longest wait for one answer
chassis_report collect_versions(unsigned serving_slot, const std::vector<unsigned> &modules, unsigned timeout_s);

// The version in the image for a card's k-th flash; empty when it cannot be told which one it is. Answers of the
// same length go together entry by entry, others by labels that occur once.
std::string source_for(const std::vector<flash_versions> &flashes, std::size_t k,
                       const std::vector<source_version> &sources);
