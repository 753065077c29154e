// A programming as text, and as JSON.
#pragma once

#include "programming_result.h"

// The outcome of a command that has programmed this one module. REQUIRES: it was tried.
outcome report_programming(const programming_result &result);

// Adds the members that tell of the programming; those that the object has already keep their places.
void add_programming_members(nlohmann::ordered_json &object, const programming_result &result);
