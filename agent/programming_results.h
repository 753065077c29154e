// How programmings have ended, as their supervisors have told whoever listens.
#pragma once

#include <map>

#include "answer.h"
#include "kept_notices.h"

answer results_answer(); // AGENT_OPC_GET_RESULTS

// The last that was told about each module.
using results_by_module = std::map<unsigned, agent_result_t>;

// Takes a notice, when it is one about the end of a programming from a daemon.
void take_result(results_by_module &results, const kept_notice &notice);
