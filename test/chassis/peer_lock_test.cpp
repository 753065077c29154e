// Module locks that an operator has a daemon take.
#include <csignal>

#include "bios_results.h"
#include "chassis_fixture.h"

namespace
{

constexpr int DONE = 0;
constexpr int BUSY = 4;

class PeerLock : public chassis_test
{
protected:
    void SetUp() override
    {
        insert({.slot = 1});
        insert({.slot = 2, .role = "standby"});
        up();
    }
};

} // namespace

TEST_F(PeerLock, IsHeldUntilItIsFreed)
{
    const finished_program locked = biosctl({"lock", "1"});
    EXPECT_EQ(locked.exit_code, DONE) << locked.errors;
    EXPECT_TRUE(is_locked(1));
    EXPECT_FALSE(is_locked(2));
    const finished_program unlocked = biosctl({"unlock", "1"});
    EXPECT_EQ(unlocked.exit_code, DONE) << unlocked.errors;
    EXPECT_FALSE(is_locked(1));
    expect_next_succeeds();
}

TEST_F(PeerLock, IsRefusedToTheDaemonOfAnotherCard)
{
    ASSERT_EQ(biosctl({"lock", "2"}).exit_code, DONE);
    const finished_program refused = biosctl({"lock", "2", "--via", "2"});
    EXPECT_EQ(refused.exit_code, BUSY) << refused.errors;
    EXPECT_NE(refused.errors.find("0x80000010"), std::string::npos) << refused.errors;
    EXPECT_NE(refused.errors.find("slot 1"), std::string::npos) << "tells who holds it: " << refused.errors;
    EXPECT_TRUE(is_locked(2));
    ASSERT_EQ(biosctl({"unlock", "2"}).exit_code, DONE);
    EXPECT_EQ(biosctl({"lock", "2", "--via", "2"}).exit_code, DONE);
}

TEST_F(PeerLock, KeepsAnotherCardFromProgramming)
{
    ASSERT_EQ(biosctl({"lock", "1", "--via", "2"}).exit_code, DONE);
    const programming refused = program(1);
    EXPECT_EQ(refused.answer, BIOS_ERR_BUSY) << refused;
    EXPECT_EQ(lines_with(1, "(bios_daemon) ERROR: sup modlock failed err=16 rc="), 1U);
    EXPECT_EQ(child_pid(1), 0);
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);

    ASSERT_EQ(biosctl({"unlock", "1", "--via", "2"}).exit_code, DONE);
    expect_next_succeeds();
}

// The daemon keeps the own lock, and the lock service frees it.
TEST_F(PeerLock, OnTheTargetKeepsItFromBeingProgrammed)
{
    ASSERT_EQ(biosctl({"lock", "2", "--via", "2"}).exit_code, DONE);
    const programming refused = program(2);
    EXPECT_EQ(refused.answer, BIOS_ERR_BUSY) << refused;
    EXPECT_EQ(lines_with(1, "(bios_daemon) ERROR: lc modlock failed err=16 rc="), 1U);
    EXPECT_FALSE(is_locked(1)) << "the refused request has left a lock";
    EXPECT_TRUE(is_locked(2)) << "the other's lock is gone";
    EXPECT_EQ(child_pid(1), 0);
    expect_next_succeeds(1);
}

TEST_F(PeerLock, GoesWithItsDaemon)
{
    ASSERT_EQ(biosctl({"lock", "1", "--via", "2"}).exit_code, DONE);
    ASSERT_TRUE(is_locked(1));
    ASSERT_EQ(::kill(daemon_pid(2), SIGKILL), 0);
    EXPECT_TRUE(wait_until([&] { return !is_locked(1); }));
    expect_next_succeeds();
}
