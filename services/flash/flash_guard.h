// The daemon is built without exceptions: none may leave a call of the platform.
#pragma once

#include <cstdint>

// The call's result, or failure when it ended with an exception (no memory).
template<class call>
std::int32_t without_exceptions(std::int32_t failure, call &&work) noexcept
{
    try {
        return work();
    } catch (...) {
        return failure;
    }
}
