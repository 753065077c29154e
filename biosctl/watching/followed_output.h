// What the commands share that print until they are left: a whole write, a wait that Ctrl-C ends, and how they end.
#pragma once

#include <chrono>
#include <string>

#include "outcome.h"

// false when it could not be written whole; errno tells why, EINTR after Ctrl-C.
[[nodiscard]] bool put_text(int fd, const std::string &text);

// Waits, unless Ctrl-C has come or comes (REQUIRES: catch_interrupt). false when the reader of the output has gone.
[[nodiscard]] bool wait_before_next(int fd, std::chrono::milliseconds how_long);

outcome chassis_gone();

// A write has failed with that errno: no failure when the reader has gone, or Ctrl-C came.
outcome output_not_written(int error);
