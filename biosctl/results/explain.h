// biosctl explain: what a result code means, without asking anybody.
#pragma once

#include <cstdint>

#include "outcome.h"

outcome run_explain(std::uint32_t code);
