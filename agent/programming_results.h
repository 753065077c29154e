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

// The last that was told about a module.
struct told_end {
    agent_result_t result = {};
    std::string time = {};   // UTC, "2026-01-31T23:59:59.123456Z"
    std::string before = {}; // when the one before was told; empty: not known
};
using results_by_module = std::map<unsigned, told_end>;

// Takes a notice, when it is one about the end of a programming from a daemon.
void take_result(results_by_module &results, const kept_notice &notice);

// What the last result means, by the events of each of the card's flashes, the oldest first.
agent_outcome outcome_of(const told_end &end, std::span<const std::vector<flash_event>> flashes);
