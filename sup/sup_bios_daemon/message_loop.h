// The daemon's loop: receives messages, reaps the programming child and serves what is asked.
#pragma once

#include <cstdint>

#include "daemon_context.h"

// Serves for ever. Returns only when the own card id turns out to be 0 while a request is served: the process's
// result.
std::uint32_t run_message_loop(daemon_context &context);
