// Requests that nobody waits for any more: they are not served. A request whose sender's wait has passed while it
// lay here is rejected, so that its sender hears that this endpoint is alive; one whose sender is gone is dropped.
#pragma once

#include "mts_endpoint.h"

// Whether a message that is about to be received is such a request; then it has been rejected.
bool mts_is_overdue(mts_endpoint &endpoint, const mts_message &message);
