// Ends the kit when a test does not come to its end, as a call of the platform that blocks for ever would keep it.
#pragma once

#include <gtest/gtest.h>

// Exit status of a kit that the watchdog has ended.
constexpr int CALL_DID_NOT_RETURN = 3;

// A listener that gives each test the time that a test of its kind may take.
//   time_limit_s  0, or seconds for every test in the place of that
testing::TestEventListener *new_watchdog(unsigned time_limit_s);
