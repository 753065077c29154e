// What a fuzzer's input is read with, and how a broken promise is told.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <unistd.h>

// Ends the process, which is what a fuzzer takes for a finding.
inline void require(bool promise_kept, const char *promise)
{
    if (promise_kept)
        return;
    (void)::dprintf(STDERR_FILENO, "broken promise: %s\n", promise);
    std::abort();
}

// Reads an input from its start; behind its end are zeros, and no texts.
class fuzz_input
{
public:
    fuzz_input(const std::uint8_t *data, std::size_t size) : rest_(data, size) {}

    bool at_end() const { return rest_.empty(); }
    std::size_t left() const { return rest_.size(); }

    std::uint8_t byte()
    {
        if (rest_.empty())
            return 0;
        const std::uint8_t first = rest_.front();
        rest_ = rest_.subspan(1);
        return first;
    }
    // 16 bits, big-endian.
    std::uint16_t word()
    {
        const std::uint8_t high = byte();
        return static_cast<std::uint16_t>(high << 8 | byte());
    }
    // The next length bytes, or as many as there are.
    std::span<const std::uint8_t> bytes(std::size_t length)
    {
        const auto taken = rest_.first(std::min(length, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    std::span<const std::uint8_t> rest() { return bytes(rest_.size()); }
    // Bytes behind a length of one byte.
    std::string text()
    {
        const auto taken = bytes(byte());
        return {taken.begin(), taken.end()};
    }

private:
    std::span<const std::uint8_t> rest_;
};
