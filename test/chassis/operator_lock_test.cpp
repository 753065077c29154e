// A module that is locked for an operator: nobody has it programmed until the lock is freed, or its time is over.
#include <csignal>

#include "bios_results.h"
#include "chassis_fixture.h"

namespace
{

constexpr int DONE = 0;
constexpr int BUSY = 4;

class OperatorLock : public chassis_test
{
protected:
    void SetUp() override
    {
        insert({.slot = 1});
        up();
    }
    // Whether a programming is held off; what is in the flash stays.
    bool is_held_off()
    {
        const programming seen = program(1);
        const bool refused = seen.answer == BIOS_ERR_BUSY;
        EXPECT_TRUE(refused || seen.verified()) << seen;
        EXPECT_EQ(flash_of(1) == old_image().bytes, refused);
        return refused;
    }
};

} // namespace

TEST_F(OperatorLock, HoldsOffProgrammingsUntilItIsFreed)
{
    const finished_program locked = biosctl({"lock", "1"});
    ASSERT_EQ(locked.exit_code, DONE) << locked.errors;
    EXPECT_TRUE(is_held_off());
    const finished_program refused = biosctl({"program", "1"});
    EXPECT_EQ(refused.exit_code, BUSY) << refused.errors;
    EXPECT_NE(refused.errors.find("held for "), std::string::npos) << refused.errors;
    EXPECT_NE(refused.errors.find("frees it with: biosctl unlock 1"), std::string::npos) << refused.errors;
    ASSERT_EQ(biosctl({"unlock", "1"}).exit_code, DONE);
    EXPECT_FALSE(is_held_off());
}

TEST_F(OperatorLock, OutlastsTheAgent)
{
    ASSERT_EQ(biosctl({"lock", "1"}).exit_code, DONE);
    const pid_t agent = agent_pid(1);
    ASSERT_EQ(::kill(agent, SIGKILL), 0);
    ASSERT_TRUE(wait_until([&] { return agent_pid(1) != 0 && agent_pid(1) != agent; }));
    EXPECT_TRUE(is_held_off());
    ASSERT_EQ(biosctl({"unlock", "1"}).exit_code, DONE);
}

TEST_F(OperatorLock, OutlastsTheDaemon)
{
    ASSERT_EQ(biosctl({"lock", "1"}).exit_code, DONE);
    ASSERT_EQ(chassis({"restart", "1"}).exit_code, 0);
    EXPECT_TRUE(is_held_off());
    ASSERT_EQ(biosctl({"unlock", "1"}).exit_code, DONE);
}

TEST_F(OperatorLock, EndsByItself)
{
    ASSERT_EQ(biosctl({"lock", "1", "--timeout", "2"}).exit_code, DONE);
    EXPECT_TRUE(is_held_off());
    EXPECT_TRUE(wait_until([&] { return !is_held_off(); }));
}

TEST_F(OperatorLock, IsRefusedWhileTheModuleIsProgrammed)
{
    write_file(flash_file(1, "timing"), "1\n"); // a real part's erases
    requester asking;
    programming seen = asking.start(1);
    ASSERT_EQ(seen.error, 0);
    const finished_program refused = biosctl({"lock", "1"});
    EXPECT_EQ(refused.exit_code, BUSY) << refused.output;
    EXPECT_NE(refused.errors.find("it is being programmed"), std::string::npos) << refused.errors;
    const finished_program kept = biosctl({"unlock", "1"});
    EXPECT_EQ(kept.exit_code, BUSY) << kept.output;
    EXPECT_NE(kept.errors.find("biosctl unlock 1 --force"), std::string::npos) << kept.errors;
    asking.await_end(seen);
    expect_programmed(seen, 1, new_image());
}
