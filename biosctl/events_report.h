// The events of flashes as a table, and as JSON.
#pragma once

#include <span>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "flash_event.h"

// The events of several flashes in one order: by time, but those of one flash in that of their sequence, whatever
// was done to the clock.
//   logs  of a flash each, in order of the sequence
std::vector<flash_event> in_order(const std::vector<std::vector<flash_event>> &logs);

// The heading and a line for an event, without newline. The last column is as long as it has to be.
//   wide  with room for the name of an alternate flash
std::string events_heading(bool wide);
std::string event_line(const flash_event &event, bool wide);
bool needs_wide_lines(std::span<const flash_event> events);

// The members of the log's line, and the name of the result.
nlohmann::ordered_json event_json(const flash_event &event);
