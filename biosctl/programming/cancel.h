// biosctl cancel: takes back a programming that has been ordered and not begun.
#pragma once

#include "outcome.h"

struct cancel_options {
    unsigned module = 0;
    unsigned instance = 0; // of the flash
};

outcome run_cancel(const cancel_options &options, bool json);
