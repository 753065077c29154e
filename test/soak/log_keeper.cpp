#include "log_keeper.h"

#include <filesystem>

void log_keeper::look()
{
    for (const std::string &log : logs_) {
        const std::uint64_t bytes = std::filesystem::file_size(log);
        if (bytes <= LOG_BYTES_MOST)
            continue;
        std::filesystem::resize_file(log, 0); // the daemons append
        emptied_ += bytes;
    }
}

std::uint64_t log_keeper::bytes_written() const
{
    std::uint64_t bytes = emptied_;
    for (const std::string &log : logs_)
        bytes += std::filesystem::file_size(log);
    return bytes;
}
