// Which slot's daemon is asked, and what is told when that does not work.
#pragma once

#include <optional>

#include "outcome.h"

struct serving_slot {
    std::optional<unsigned> slot; // none: problem tells why
    outcome problem;
};

// The slot whose daemon serves a request for a module: via if given, else the active supervisor's. Fails when
// the chassis has no such module or no such slot.
serving_slot find_serving_slot(unsigned module, std::optional<unsigned> via);

// The same for a request that is about no module, or about many.
serving_slot find_serving_slot(std::optional<unsigned> via);

// The chassis has no such module.
outcome no_module_failure(unsigned module);

// No endpoint of this process could be made; errno tells why.
outcome no_endpoint_failure();

// A request to the daemon of a slot got no answer; error as in request_answer.
outcome no_answer_failure(unsigned slot, int error);
