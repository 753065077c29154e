// Requests that come while a programming runs.
#include <cerrno>

#include "bios_results.h"
#include "chassis_fixture.h"

namespace
{

class BusyRequests : public chassis_test
{
};

} // namespace

TEST_F(BusyRequests, SecondIsRefusedAndTheFirstIsStillReported)
{
    insert({.slot = 1});
    up();
    keep_pauses(1);
    requester first;
    requester second;
    programming running = first.start(1);
    ASSERT_EQ(running.error, 0);
    ASSERT_EQ(running.answer, 0U);
    EXPECT_TRUE(is_locked(1));
    ASSERT_TRUE(wait_until([&] { return child_pid(1) != 0; })); // the answer comes before the fork
    const pid_t child = child_pid(1);

    const programming refused = second.start(1);
    const programming refused_again = first.start(1, {.uri = "bootflash:other.img"});

    EXPECT_EQ(refused.answer, BIOS_ERR_BUSY);
    EXPECT_EQ(refused_again.answer, BIOS_ERR_BUSY);
    EXPECT_EQ(lines_with(1, "Sorry busy ... in progress here "), 2U);
    EXPECT_EQ(child_pid(1), child) << "the refused request has forked";
    EXPECT_TRUE(is_locked(1)) << "the refused request has freed the lock";
    first.await_end(running);
    expect_programmed(running, 1, new_image());
    expect_tidy(1);

    // The notice goes to everybody who listens, the progress to the requester only.
    programming overheard;
    second.await_end(overheard);
    EXPECT_EQ(overheard.result, std::optional<std::uint32_t>(0));
    EXPECT_TRUE(overheard.progress.empty());
    expect_next_succeeds();
}

TEST_F(BusyRequests, OtherRequestsAreServedMeanwhile)
{
    insert({.slot = 1});
    up();
    keep_pauses(1);
    requester asking;
    programming running = asking.start(1);
    ASSERT_EQ(running.answer, 0U);
    EXPECT_EQ(biosctl({"lock", "1"}).exit_code, 4) << "a module that is being programmed is not locked";
    int error = 0;
    EXPECT_EQ(asking.request(1, 1, "unknown", error), std::nullopt);
    EXPECT_EQ(error, EOPNOTSUPP);
    asking.await_end(running);
    expect_programmed(running, 1, new_image());
    expect_tidy(1);
}
