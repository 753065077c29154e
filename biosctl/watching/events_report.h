// The events of flashes as a table, and as JSON.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "flash_event.h"
#include "outcome.h"
#include "table.h"

// The events of several flashes in one order: by time, but those of one flash in that of their sequence, whatever
// was done to the clock.
//   logs  of a flash each, in order of the sequence
std::vector<flash_event> in_order(const std::vector<std::vector<flash_event>> &logs);

// What is wrong with the log of a flash.
struct event_log_fault {
    unsigned slot = 0;
    unsigned instance = 0;
    std::string text;
};
nlohmann::ordered_json fault_json(const event_log_fault &fault);
nlohmann::ordered_json unread_json(unsigned slot);

// That there are faults, or cards whose agents have not given out their events.
outcome report_faults(const std::vector<event_log_fault> &faults, const std::vector<unsigned> &unread);

// The columns alone, as wide as what usually happens needs.
table events_table();
void add_event(table &events, const flash_event &event);

// The members of the log's line, and the name of the result.
nlohmann::ordered_json event_json(const flash_event &event);
