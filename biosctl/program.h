// biosctl program: has a module's BIOS flash programmed and follows it to its end. Blocks until then.
#pragma once

#include "outcome.h"
#include "program_request.h"

outcome run_program(const program_options &options, bool json);
