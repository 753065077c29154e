// Keeps the logs of a chassis's cards from filling the disk: each request leaves lines in them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

constexpr std::uint64_t LOG_BYTES_MOST = std::uint64_t{32} << 20; // a longer log is emptied

class log_keeper
{
public:
    explicit log_keeper(std::vector<std::string> logs) : logs_(std::move(logs)) {}

    // Empties the logs that are too long.
    void look();

    // All that was written: what was emptied and what is there.
    std::uint64_t bytes_written() const;

private:
    std::vector<std::string> logs_;
    std::uint64_t emptied_ = 0;
};
