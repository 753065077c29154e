// Waiting for an event, with a deadline.
#pragma once

#include <chrono>
#include <thread>

// Looks for the event again and again; false when it has not come in time.
template<class predicate>
[[nodiscard]] bool wait_until(predicate &&event, std::chrono::seconds patience = std::chrono::seconds(60))
{
    constexpr auto LOOK_INTERVAL = std::chrono::milliseconds(10);
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!event()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return event();
        std::this_thread::sleep_for(LOOK_INTERVAL);
    }
    return true;
}
