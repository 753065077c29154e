// What stands between services, which use the C++ library, and callers that are C or built without exceptions:
// nothing thrown passes here. Only memory can run out.
#pragma once

#include <cerrno>
#include <type_traits>

// What a call of the platform returns, or on_exception with errno ENOMEM.
template<class call>
std::invoke_result_t<call &> c_boundary(std::invoke_result_t<call &> on_exception, call &&work) noexcept
{
    try {
        return work();
    } catch (...) {
        errno = ENOMEM;
        return on_exception;
    }
}

// Likewise for the calls whose failure is -1.
template<class call>
std::invoke_result_t<call &> c_boundary(call &&work) noexcept
{
    return c_boundary(-1, work);
}

// For what is only noted beside the caller's business: it may fail, and leaves errno as it was.
template<class call>
void best_effort(call &&work) noexcept
{
    const int before = errno;
    try {
        work();
    } catch (...) {
        // No memory for a line of diagnostics.
    }
    errno = before;
}
