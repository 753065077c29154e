// Sleeping for the time that a real part would take.
#include "flash_timing.h"

#include <chrono>
#include <thread>

namespace
{

constexpr std::int64_t LUMP_NS = 5'000'000;

} // namespace

void flash_timing::spend(std::uint64_t nanoseconds)
{
    if (!on_)
        return;
    owed_ns_ += static_cast<std::int64_t>(nanoseconds);
    if (owed_ns_ < LUMP_NS)
        return;
    using clock = std::chrono::steady_clock;
    const auto begin = clock::now();
    std::this_thread::sleep_for(std::chrono::nanoseconds(owed_ns_));
    owed_ns_ -= std::chrono::duration_cast<std::chrono::nanoseconds>(clock::now() - begin).count();
}
