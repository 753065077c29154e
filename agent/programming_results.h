// How programmings have ended, as their supervisors have told whoever listens.
#pragma once

#include <map>
#include <span>
#include <string>

#include "answer.h"
#include "flash_event.h"
#include "kept_notices.h"

answer results_answer(); // AGENT_OPC_GET_RESULTS
answer outcome_answer(); // AGENT_OPC_GET_OUTCOME

// The last that was told about a module. Times are UTC, "2026-01-31T23:59:59.123456Z".
struct told_end {
    agent_result_t result = {};
    std::string time = {};     // when it was told to whoever listens
    std::string before = {};   // when the one before was; empty: not known
    std::string reported = {}; // when the module's daemon has told it to the supervisor; empty: it has not
};

struct told_ends {
    std::map<unsigned, told_end> by_module = {};
    std::map<unsigned, std::string> reported = {}; // to a supervisor that has told nobody yet
};

// Takes a notice, when it is one about the end of a programming from a daemon.
void take_end(told_ends &ends, const kept_notice &notice);

// What the last result means, by the events of each of the card's flashes, the oldest first.
agent_outcome outcome_of(const told_end &end, std::span<const std::vector<flash_event>> flashes);

// When the work on the flash has ended that the last result is of, "2026-01-31T23:59:59Z"; empty: not known.
std::string flash_end_of(const told_end &end, std::span<const std::vector<flash_event>> flashes);
