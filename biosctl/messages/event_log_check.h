// Whether the event log of a flash is as it was written: a chain without a gap (flash_event_chain.h), and no
// shorter than the supervisors know it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "agent_answers.h"
#include "flash_event.h"

// The head of a log, as a supervisor's agent was told it.
struct known_head {
    unsigned told_by_slot = 0;
    std::uint64_t sequence = 0;
    std::string chain;
};

// What is wrong with a log, a text each: "2 lines before line 7 are missing". Empty when nothing is, and for a log
// from before there was a chain. A pure function.
//   events  all that the log has
//   head    asked for before the events were; none: no supervisor knows one
//   told    what the card's agent has found in the log besides
std::vector<std::string> event_log_faults(std::span<const flash_event> events,
                                          const std::optional<known_head> &head,
                                          std::span<const told_log_fault> told = {});

// The highest head of a flash that the supervisors in other slots know.
std::optional<known_head> ask_for_head(unsigned slot, unsigned instance, std::span<const chassis_module> modules);
