// Random input for tests: another one in each run, and the same again with --gtest_random_seed.
#pragma once

#include <random>
#include <string>

#include <gtest/gtest.h>

class random_input
{
public:
    random_input() : seed_(chosen_seed()), engine_(static_cast<unsigned>(seed_)) {}

    // For SCOPED_TRACE: how to run the test again with the same input.
    std::string trace() const { return "repeat with --gtest_random_seed=" + std::to_string(seed_); }

    // A number from 0 to limit - 1.
    std::size_t below(std::size_t limit) { return engine_() % limit; }

private:
    static int chosen_seed()
    {
        constexpr unsigned seeds = 99999; // as many as the option takes
        const int wanted = GTEST_FLAG_GET(random_seed);
        return wanted != 0 ? wanted : static_cast<int>(std::random_device{}() % seeds) + 1;
    }

    int seed_;
    std::mt19937 engine_;
};
