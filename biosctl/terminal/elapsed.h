// Time since a moment of this process, for what is shown to a person.
#pragma once

#include <chrono>

inline unsigned seconds_since(std::chrono::steady_clock::time_point start)
{
    return static_cast<unsigned>(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count());
}
