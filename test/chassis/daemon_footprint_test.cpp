// What the daemon costs the card while nothing happens.
#include <cstdio>
#include <sstream>
#include <unistd.h>

#include "chassis_fixture.h"

namespace
{

constexpr unsigned RESIDENT_LIMIT_KIB = 4096;
constexpr auto IDLE_TIME = std::chrono::seconds(12);
constexpr unsigned long IDLE_TICKS_LIMIT = 2;

class DaemonFootprint : public chassis_test
{
protected:
    DaemonFootprint() : chassis_test(daemon_build::shipped) {}
    unsigned resident_kib() const
    {
        std::istringstream status(file_content("/proc/" + std::to_string(daemon_pid(1)) + "/status"));
        for (std::string word; status >> word;) {
            unsigned kib = 0;
            if (word == "VmRSS:" && status >> kib)
                return kib;
        }
        return 0;
    }
    // Clock ticks of user and system time.
    unsigned long ticks() const
    {
        const std::string text = file_content("/proc/" + std::to_string(daemon_pid(1)) + "/stat");
        std::istringstream rest(text.substr(text.rfind(')') + 1));
        std::string skipped;
        for (unsigned field = 3; field < 14; ++field)
            rest >> skipped;
        unsigned long user = 0;
        unsigned long system = 0;
        rest >> user >> system;
        return user + system;
    }
};

} // namespace

TEST_F(DaemonFootprint, StaysBelowFourMebibytes)
{
    if (sizeof(void *) != 4)
        GTEST_SKIP() << "promised for the 32-bit target";
    insert({.slot = 1});
    up();
    const unsigned started = resident_kib();
    expect_next_succeeds();
    const unsigned after_a_request = resident_kib();
    std::printf("resident: %u KiB after the start, %u KiB after a request\n", started, after_a_request);
    EXPECT_GT(started, 0U);
    EXPECT_LT(started, RESIDENT_LIMIT_KIB);
    EXPECT_LT(after_a_request, RESIDENT_LIMIT_KIB);
}

TEST_F(DaemonFootprint, UsesNoProcessorTimeWhileNothingComes)
{
    insert({.slot = 1});
    up();
    const pid_t daemon = daemon_pid(1);
    const unsigned long before = ticks();
    std::this_thread::sleep_for(IDLE_TIME); // the time over which it is measured
    const unsigned long used = ticks() - before;
    std::printf("idle for %d s: %lu ticks of %ld per second\n", static_cast<int>(IDLE_TIME.count()), used,
                ::sysconf(_SC_CLK_TCK));
    EXPECT_EQ(daemon_pid(1), daemon);
    EXPECT_LT(used, IDLE_TICKS_LIMIT);
}
