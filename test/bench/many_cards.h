// A chassis of many cards: two supervisors, line cards in the other slots.
#pragma once

#include <memory>

#include "bench_chassis.h"

// The chassis is up. The first slots run the daemon and have an image in their image trees, the others run the
// stand-in that answers version queries.
std::unique_ptr<bench_chassis> chassis_of(unsigned cards, unsigned daemons);
