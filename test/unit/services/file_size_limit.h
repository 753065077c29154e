// Files of this process get no longer than they are allowed to, which is to a writer as if the disk were full.
#pragma once

#include <csignal>
#include <cstdint>

#include <gtest/gtest.h>
#include <sys/resource.h>

class file_size_limit
{
public:
    explicit file_size_limit(std::uint64_t bytes)
    {
        (void)std::signal(SIGXFSZ, SIG_IGN);
        EXPECT_EQ(::getrlimit(RLIMIT_FSIZE, &before_), 0);
        const rlimit limit = {static_cast<rlim_t>(bytes), before_.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~file_size_limit() { EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &before_), 0); }
    file_size_limit(const file_size_limit &) = delete;
    file_size_limit &operator=(const file_size_limit &) = delete;

private:
    rlimit before_{};
};
