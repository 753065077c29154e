// Writing all of a buffer: what the system takes at a time is the test's choice.
#include "write_all.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

constexpr int FD = 1000; // no descriptor of this process: nobody else writes to it

struct answer {
    ssize_t bytes;
    int error = 0;
};

std::vector<answer> answers; // the last stays
std::string written;
unsigned calls = 0;

bool wanted_no_more()
{
    return true;
}

bool wanted()
{
    return false;
}

class WriteAll : public testing::Test
{
protected:
    void SetUp() override
    {
        answers.clear();
        written.clear();
        calls = 0;
        errno = 0;
    }

    static bool write_text(std::vector<answer> next, bool (*given_up)() = nullptr)
    {
        answers = std::move(next);
        calls = 0;
        return write_all(FD, "abcdef", 6, given_up);
    }
};

} // namespace

extern "C" {
ssize_t __real_write(int fd, const void *bytes, std::size_t length);
ssize_t __wrap_write(int fd, const void *bytes, std::size_t length);

ssize_t __wrap_write(int fd, const void *bytes, std::size_t length)
{
    if (fd != FD)
        return __real_write(fd, bytes, length);
    const answer now = answers.at(std::min<std::size_t>(calls++, answers.size() - 1));
    if (now.bytes < 0) {
        errno = now.error;
        return -1;
    }
    const std::size_t taken = std::min(length, static_cast<std::size_t>(now.bytes));
    written.append(static_cast<const char *>(bytes), taken);
    return static_cast<ssize_t>(taken);
}
}

namespace
{

TEST_F(WriteAll, GoesOnBehindWhatWasWritten)
{
    EXPECT_TRUE(write_text({{1}, {3}, {6}}));
    EXPECT_EQ(written, "abcdef");
    EXPECT_EQ(calls, 3U);
}

TEST_F(WriteAll, GoesOnAfterAnInterruptedCall)
{
    EXPECT_TRUE(write_text({{2}, {-1, EINTR}, {-1, EINTR}, {6}}));
    EXPECT_EQ(written, "abcdef");
    EXPECT_TRUE(write_text({{-1, EINTR}, {6}}, wanted));
}

TEST_F(WriteAll, EndsAtAnInterruptedCallWhenNobodyWantsTheRest)
{
    EXPECT_FALSE(write_text({{2}, {-1, EINTR}, {6}}, wanted_no_more));
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(written, "ab");
}

TEST_F(WriteAll, EndsWithTheErrnoOfACallThatFailed)
{
    EXPECT_FALSE(write_text({{2}, {-1, ENOSPC}}));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(written, "ab");
}

TEST_F(WriteAll, EndsWhenNothingIsTaken)
{
    EXPECT_FALSE(write_text({{2}, {0}}));
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(calls, 2U);
}

TEST_F(WriteAll, AsksNobodyForAnEmptyBuffer)
{
    answers = {{-1, EIO}};
    EXPECT_TRUE(write_all(FD, nullptr, 0));
    EXPECT_EQ(calls, 0U);
}

} // namespace
