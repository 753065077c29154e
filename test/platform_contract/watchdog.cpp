// A thread that nothing else of the kit knows of: it is in no forked child and gets no signal. It names the test
// that hangs, has the surroundings put back, and ends the process, because a blocked call cannot be ended.
#include "watchdog.h"

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unistd.h>

#include "contract_surroundings.h"

namespace
{

using steady = std::chrono::steady_clock;
using seconds = std::chrono::seconds;

constexpr seconds PROGRAMMING_LIMIT{3600}; // some programmings of a large flash
constexpr seconds TEST_LIMIT{300};         // some waits for a peer that does not answer

// What the thread watches. It is never freed: the thread waits for it until the process ends.
struct watched {
    std::mutex mutex;
    std::condition_variable changed;
    std::optional<steady::time_point> deadline; // of the test that runs
    seconds limit{0};
    std::string test;
};

[[noreturn]] void end_process(const watched &state)
{
    std::printf("[  FAILED  ] %s: did not end within %lld s: a call of the platform does not return.\n"
                "The tests behind it were not run; for these: --gtest_filter=-%s\n",
                state.test.c_str(), static_cast<long long>(state.limit.count()), state.test.c_str());
    (void)std::fflush(stdout);
    contract_end();
    ::_exit(CALL_DID_NOT_RETURN);
}

[[noreturn]] void watch(watched &state)
{
    std::unique_lock lock(state.mutex);
    for (;;) {
        if (!state.deadline) {
            state.changed.wait(lock);
            continue;
        }
        const steady::time_point deadline = *state.deadline;
        if (steady::now() >= deadline)
            end_process(state);
        (void)state.changed.wait_until(lock, deadline);
    }
}

class watchdog : public testing::EmptyTestEventListener
{
public:
    explicit watchdog(seconds limit) : limit_(limit) {}

    void OnTestStart(const testing::TestInfo &test) override
    {
        start_thread();
        const std::lock_guard lock(state_->mutex);
        state_->test = std::string(test.test_suite_name()) + "." + test.name();
        state_->limit = limit_of(test);
        state_->deadline = steady::now() + state_->limit;
        state_->changed.notify_one();
    }
    void OnTestEnd(const testing::TestInfo &) override
    {
        const std::lock_guard lock(state_->mutex);
        state_->deadline.reset();
        state_->changed.notify_one();
    }

private:
    seconds limit_of(const testing::TestInfo &test) const
    {
        if (limit_ != seconds{0})
            return limit_;
        const bool programs = std::string(test.test_suite_name()).find("Flash") != std::string::npos;
        return programs ? PROGRAMMING_LIMIT : TEST_LIMIT;
    }

    void start_thread()
    {
        if (state_ != nullptr)
            return;
        state_ = new watched;
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before);
        std::thread([state = state_] { watch(*state); }).detach();
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    const seconds limit_; // of every test; 0: as long as a test of its kind may take
    watched *state_ = nullptr;
};

} // namespace

testing::TestEventListener *new_watchdog(unsigned time_limit_s)
{
    return new watchdog(seconds{time_limit_s});
}
