// Chance in tests that can be repeated.
#pragma once

#include <cstdlib>
#include <iostream>
#include <random>
#include <string>

// The seed of this run, printed at the first call; a failed run is repeated with TEST_SEED in the environment.
inline unsigned test_seed()
{
    static const unsigned seed = [] {
        const char *given = std::getenv("TEST_SEED");
        const unsigned number =
            given != nullptr ? static_cast<unsigned>(std::stoul(given)) : std::random_device()();
        std::cout << "TEST_SEED=" << number << "\n";
        return number;
    }();
    return seed;
}
