// The chassis's module lock, between real processes.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>

#include "chassis_dir.h"
#include "chassis_module_lock.h"
#include "modlock.h"
#include "rest_of.h"

namespace
{

namespace fs = std::filesystem;

constexpr std::uint32_t OWNER = 129;
constexpr std::uint32_t NODE = 0x0101;
constexpr std::uint32_t FOR_PROGRAMMING[4] = {1, 0, 0, 0x4071000a};
constexpr std::uint32_t FOR_PEER[4] = {1, 0, 0, 0x4071000b};

class ChassisModuleLock : public ::testing::Test
{
protected:
    void SetUp() override
    {
        char name[] = "/tmp/chassis-lock-XXXXXX";
        ASSERT_NE(::mkdtemp(name), nullptr);
        chassis_ = name;
        ASSERT_EQ(chassis_attach(chassis_, 1), 0);
        ASSERT_EQ(modlock_init(), 0);
    }

    void TearDown() override { fs::remove_all(chassis_); }

    // What a process of another card makes of it.
    int in_card(unsigned slot, const std::function<int()> &work) const
    {
        const pid_t child = ::fork();
        if (child == 0)
            ::_exit(chassis_attach(chassis_, slot) == 0 && modlock_init() == 0 ? work() : 99);
        int status = 0;
        return ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // A card that takes locks and keeps them until it is killed.
    pid_t start_holder(unsigned slot, const std::vector<std::uint32_t> &nodes) const
    {
        int ready[2];
        EXPECT_EQ(::pipe2(ready, O_CLOEXEC), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            bool taken = chassis_attach(chassis_, slot) == 0 && modlock_init() == 0;
            for (const std::uint32_t node : nodes)
                taken = taken && modlock_module_lock(OWNER, node, FOR_PROGRAMMING) == 0;
            if (!taken || ::write(ready[1], "1", 1) != 1)
                ::_exit(1);
            for (;;)
                ::pause();
        }
        ::close(ready[1]);
        char state = 0;
        EXPECT_EQ(::read(ready[0], &state, 1), 1);
        ::close(ready[0]);
        return child;
    }

    static void kill(pid_t process)
    {
        ::kill(process, SIGKILL);
        ::waitpid(process, nullptr, 0);
    }

    static int error_of_lock(std::uint32_t node)
    {
        return modlock_module_lock(OWNER, node, FOR_PROGRAMMING) == 0 ? 0 : errno;
    }

    static int error_of_unlock(std::uint32_t node) { return modlock_module_unlock(OWNER, node) == 0 ? 0 : errno; }

    static std::vector<chassis_module_lock_holder> holders()
    {
        int error = -1;
        auto result = chassis_module_lock_holders(error);
        EXPECT_EQ(error, 0);
        return result;
    }

    std::string record_of(std::uint32_t node) const
    {
        char name[16];
        std::snprintf(name, sizeof name, "/locks/%04x", node);
        std::ifstream file(chassis_ + name);
        return rest_of(file);
    }

    std::string chassis_;
};

TEST_F(ChassisModuleLock, ExcludesOtherProcessesUntilItIsFreed)
{
    ASSERT_EQ(error_of_lock(NODE), 0);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE); }), EBUSY);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE + 1); }), 0);
    ASSERT_EQ(error_of_unlock(NODE), 0);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE); }), 0);
}

TEST_F(ChassisModuleLock, IsGrantedToItsHolderAgainAndFreedByOneUnlock)
{
    ASSERT_EQ(error_of_lock(NODE), 0);
    const std::string record = record_of(NODE);
    EXPECT_EQ(modlock_module_lock(OWNER, NODE, FOR_PEER), 0);
    EXPECT_EQ(record_of(NODE), record);
    EXPECT_EQ(error_of_unlock(NODE), 0);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE); }), 0);
}

TEST_F(ChassisModuleLock, UsesTheLow16BitsOfTheNodeId)
{
    ASSERT_EQ(error_of_lock(0xabcd0101), 0);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(0x0101); }), EBUSY);
    EXPECT_EQ(error_of_unlock(0x0101), 0);
    EXPECT_EQ(error_of_lock(0xffff), 0);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(0xffff); }), EBUSY);
    EXPECT_EQ(error_of_unlock(0xffff), 0);
}

TEST_F(ChassisModuleLock, TellsWhoseLockAnUnlockWouldFree)
{
    EXPECT_EQ(error_of_unlock(NODE), ENOENT);
    ASSERT_EQ(error_of_lock(NODE), 0);
    EXPECT_EQ(in_card(2, [] { return error_of_unlock(NODE); }), EPERM);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE); }), EBUSY);
    EXPECT_EQ(error_of_unlock(NODE), 0);
    EXPECT_EQ(error_of_unlock(NODE), ENOENT);
}

TEST_F(ChassisModuleLock, IsFreedWhenItsHolderIsKilled)
{
    const pid_t holder = start_holder(2, {NODE});
    EXPECT_EQ(error_of_lock(NODE), EBUSY);
    ASSERT_EQ(holders().size(), 1u);
    kill(holder);
    EXPECT_NE(record_of(NODE), "");
    EXPECT_TRUE(holders().empty());
    EXPECT_EQ(error_of_unlock(NODE), ENOENT);
    EXPECT_EQ(error_of_lock(NODE), 0);
    EXPECT_EQ(holders().at(0).slot, 1u);
}

TEST_F(ChassisModuleLock, IsNotInheritedByAChildAndNotFreedByItsEnd)
{
    ASSERT_EQ(error_of_lock(NODE), 0);
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(error_of_lock(NODE) == EBUSY && error_of_unlock(NODE) == EPERM ? 0 : 1);
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE); }), EBUSY);
}

TEST_F(ChassisModuleLock, RecordsItsHolder)
{
    ASSERT_EQ(error_of_lock(NODE), 0);
    unsigned slot = 0, owner = 0, reason = 0, pid = 0;
    char since[32] = "";
    const std::string record = record_of(NODE);
    ASSERT_EQ(std::sscanf(record.c_str(), "%u %u %u %x %31s", &slot, &pid, &owner, &reason, since), 5) << record;
    EXPECT_EQ(slot, 1u);
    EXPECT_EQ(pid, static_cast<unsigned>(::getpid()));
    EXPECT_EQ(owner, OWNER);
    EXPECT_EQ(reason, 0x4071000au);
    EXPECT_EQ(std::string(since).size(), 20u);
    EXPECT_EQ(std::string(since).back(), 'Z');
    ASSERT_EQ(error_of_unlock(NODE), 0);
    EXPECT_FALSE(fs::exists(chassis_ + "/locks/0101"));
}

TEST_F(ChassisModuleLock, ListsTheHoldersOfAllLocksInOrder)
{
    const pid_t second = start_holder(2, {0x0202, 0x0203, 0x0204, 0xff00});
    const pid_t third = start_holder(3, {0x0302, 0x0001, 0x0205});
    ASSERT_EQ(error_of_lock(NODE), 0);
    ASSERT_EQ(error_of_lock(0), 0);
    std::vector<std::pair<unsigned, unsigned>> found;
    for (const auto &holder : holders()) {
        found.emplace_back(holder.node_id, holder.slot);
        EXPECT_EQ(holder.owner, OWNER);
        EXPECT_EQ(holder.reason, 0x4071000au);
        EXPECT_NE(holder.pid, 0u);
    }
    const std::vector<std::pair<unsigned, unsigned>> expected = {{0, 1},      {0x0001, 3}, {0x0101, 1},
                                                                 {0x0202, 2}, {0x0203, 2}, {0x0204, 2},
                                                                 {0x0205, 3}, {0x0302, 3}, {0xff00, 2}};
    EXPECT_EQ(found, expected);
    kill(second);
    kill(third);
    EXPECT_EQ(holders().size(), 2u);
    // Looking on did not cost the own locks.
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE); }), EBUSY);
}

TEST_F(ChassisModuleLock, ShowsAHolderWithoutARecord)
{
    const pid_t holder = start_holder(2, {NODE});
    std::ofstream(chassis_ + "/locks/0101") << "2 77 nonsense\n";
    ASSERT_EQ(holders().size(), 1u);
    EXPECT_EQ(holders()[0].node_id, NODE);
    EXPECT_EQ(holders()[0].slot, 0u);
    EXPECT_EQ(holders()[0].since, "");
    kill(holder);
}

TEST_F(ChassisModuleLock, HoldsThoughItsRecordCannotBeWritten)
{
    fs::create_directories(chassis_ + "/locks/0101/in the way");
    EXPECT_EQ(error_of_lock(NODE), 0);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE); }), EBUSY);
    EXPECT_EQ(error_of_unlock(NODE), 0);
}

TEST_F(ChassisModuleLock, ReportsThatTheChassisIsMissing)
{
    EXPECT_EQ(in_card(2,
                      [&] {
                          fs::remove_all(chassis_);
                          return modlock_init() != 0 ? errno : 0;
                      }),
              ENOENT);
}

TEST_F(ChassisModuleLock, RefusesARequestWithoutWords)
{
    EXPECT_EQ(modlock_module_lock(OWNER, NODE, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
