// The module lock, between real processes of a chassis whose cards have agents.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

#include "card_agent_process.h"
#include "chassis_dir.h"
#include "chassis_module_lock.h"
#include "modlock.h"
#include "rest_of.h"
#include "served_locks.h"
#include "temporary_folder.h"

namespace
{

namespace fs = std::filesystem;

constexpr std::uint32_t OWNER = 129;
constexpr std::uint32_t NODE = 0x0101;
constexpr std::uint32_t FOR_PROGRAMMING[4] = {1, 0, 0, 0x4071000a};
constexpr std::uint32_t FOR_PEER[4] = {1, 0, 0, 0x4071000b};

class ModuleLock : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const unsigned slot : {1, 2, 3}) {
            put("inventory/" + std::to_string(slot) + "/kind", slot == 3 ? "2\n" : "1\n");
            fs::create_directories(chassis_ + "/slots/" + std::to_string(slot));
            start_agent(slot);
        }
        ASSERT_EQ(chassis_attach(chassis_, 1), 0);
        ASSERT_EQ(modlock_init(), 0);
    }

    void put(const std::string &file, const std::string &text) const
    {
        fs::create_directories(fs::path(chassis_ + "/" + file).parent_path());
        std::ofstream(chassis_ + "/" + file) << text;
    }
    void start_agent(unsigned slot) { agents_[slot] = std::make_unique<card_agent_process>(chassis_, slot); }
    void end_agent(unsigned slot) { agents_.erase(slot); }

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

    static std::vector<chassis_module_lock_holder> holders() { return served_locks(); }

    std::string record_of(std::uint32_t node) const
    {
        char name[32];
        std::snprintf(name, sizeof name, "/slots/1/locks/%04x", node);
        std::ifstream file(chassis_ + name);
        return rest_of(file);
    }

    const temporary_folder folder_{"chassis-lock"};
    const std::string &chassis_ = folder_.path();
    std::map<unsigned, std::unique_ptr<card_agent_process>> agents_;
};

TEST_F(ModuleLock, ExcludesOtherProcessesUntilItIsFreed)
{
    ASSERT_EQ(error_of_lock(NODE), 0);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE); }), EBUSY);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE + 1); }), 0);
    ASSERT_EQ(error_of_unlock(NODE), 0);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE); }), 0);
}

TEST_F(ModuleLock, IsGrantedToItsHolderAgainAndFreedByOneUnlock)
{
    ASSERT_EQ(error_of_lock(NODE), 0);
    const std::string record = record_of(NODE);
    EXPECT_EQ(modlock_module_lock(OWNER, NODE, FOR_PEER), 0);
    EXPECT_EQ(record_of(NODE), record);
    EXPECT_EQ(error_of_unlock(NODE), 0);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE); }), 0);
}

TEST_F(ModuleLock, UsesTheLow16BitsOfTheNodeId)
{
    ASSERT_EQ(error_of_lock(0xabcd0101), 0);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(0x0101); }), EBUSY);
    EXPECT_EQ(error_of_unlock(0x0101), 0);
}

// There is nobody else to ask.
TEST_F(ModuleLock, OfAModuleThatIsNotThereIsLockedForTheOwnCard)
{
    for (const std::uint32_t node : {0x0000U, 0x0902U, 0xffffU}) {
        EXPECT_EQ(error_of_lock(node), 0);
        EXPECT_EQ(in_card(1, [=] { return error_of_lock(node); }), EBUSY);
        EXPECT_EQ(in_card(2, [=] { return error_of_lock(node); }), 0);
        EXPECT_EQ(error_of_unlock(node), 0);
    }
}

TEST_F(ModuleLock, TellsWhoseLockAnUnlockWouldFree)
{
    EXPECT_EQ(error_of_unlock(NODE), ENOENT);
    ASSERT_EQ(error_of_lock(NODE), 0);
    EXPECT_EQ(in_card(2, [] { return error_of_unlock(NODE); }), EPERM);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE); }), EBUSY);
    EXPECT_EQ(error_of_unlock(NODE), 0);
    EXPECT_EQ(error_of_unlock(NODE), ENOENT);
}

TEST_F(ModuleLock, IsFreedWhenItsHolderIsKilled)
{
    for (const unsigned slot : {1U, 2U}) {
        const pid_t holder = start_holder(slot, {NODE});
        EXPECT_EQ(error_of_lock(NODE), EBUSY);
        ASSERT_EQ(holders().size(), 1u);
        EXPECT_EQ(holders()[0].slot, slot);
        kill(holder);
        EXPECT_EQ(error_of_unlock(NODE), ENOENT);
        EXPECT_EQ(error_of_lock(NODE), 0);
        EXPECT_EQ(holders().at(0).slot, 1u);
        EXPECT_EQ(error_of_unlock(NODE), 0);
    }
}

TEST_F(ModuleLock, OutlivesTheAgents)
{
    const pid_t holder = start_holder(2, {NODE});
    for (const unsigned slot : {1U, 2U}) {
        end_agent(slot);
        start_agent(slot);
        EXPECT_EQ(error_of_lock(NODE), EBUSY) << "agent of slot " << slot;
        ASSERT_EQ(holders().size(), 1u);
        EXPECT_EQ(holders()[0].pid, static_cast<unsigned>(holder));
    }
    kill(holder);
    EXPECT_EQ(error_of_lock(NODE), 0);
}

TEST_F(ModuleLock, IsNotTakenWithoutTheOwnAgentAndSaysSoWithinASecond)
{
    end_agent(1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_NE(error_of_lock(NODE), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1300));
    start_agent(1);
    EXPECT_EQ(error_of_lock(NODE), 0) << "what could not be had left nothing behind";
}

TEST_F(ModuleLock, IsNotInheritedByAChildAndNotFreedByItsEnd)
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

TEST_F(ModuleLock, TellsWhoHoldsIt)
{
    ASSERT_EQ(error_of_lock(NODE), 0);
    ASSERT_EQ(holders().size(), 1u);
    const chassis_module_lock_holder holder = holders()[0];
    EXPECT_EQ(holder.node_id, NODE);
    EXPECT_EQ(holder.slot, 1u);
    EXPECT_EQ(holder.pid, static_cast<unsigned>(::getpid()));
    EXPECT_EQ(holder.owner, OWNER);
    EXPECT_EQ(holder.reason, 0x4071000au);
    EXPECT_EQ(holder.since.size(), 20u);
    EXPECT_EQ(holder.since.back(), 'Z');
    ASSERT_EQ(error_of_unlock(NODE), 0);
    EXPECT_TRUE(holders().empty());
    EXPECT_EQ(record_of(NODE), "");
}

TEST_F(ModuleLock, ListsTheHoldersOfAllLocksInOrder)
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
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (holders().size() != 2 && std::chrono::steady_clock::now() < deadline)
        ::usleep(50'000);
    EXPECT_EQ(holders().size(), 2u);
    // Looking on did not cost the own locks.
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE); }), EBUSY);
}

TEST_F(ModuleLock, HoldsThoughItCannotBeRecorded)
{
    fs::create_directories(chassis_ + "/slots/1/locks/0101/in the way");
    EXPECT_EQ(error_of_lock(NODE), 0);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE); }), EBUSY);
    (void)error_of_unlock(NODE);
    EXPECT_EQ(in_card(2, [] { return error_of_lock(NODE); }), 0);
}

TEST_F(ModuleLock, IsNotForProcessesOfNoCard)
{
    EXPECT_EQ(chassis_attach(chassis_, 0), 0);
    EXPECT_EQ(modlock_init() != 0 ? errno : 0, ENXIO);
}

TEST_F(ModuleLock, ReportsThatTheChassisIsMissing)
{
    EXPECT_EQ(in_card(2,
                      [&] {
                          fs::remove_all(chassis_);
                          return modlock_init() != 0 ? errno : 0;
                      }),
              ENOENT);
}

TEST_F(ModuleLock, RefusesARequestWithoutWords)
{
    EXPECT_EQ(modlock_module_lock(OWNER, NODE, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
