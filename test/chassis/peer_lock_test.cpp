// Module locks that a peer has a daemon take, and that biosctl unlock has it free.
#include <cerrno>
#include <csignal>
#include <cstring>

#include "bios_messages.h"
#include "bios_opcodes.h"
#include "bios_results.h"
#include "chassis_fixture.h"
#include "daemon_node.h"

namespace
{

constexpr int DONE = 0;
constexpr std::uint32_t LOCK_HELD = 0x80000000U | EBUSY;

class PeerLock : public chassis_test
{
protected:
    void SetUp() override { up_with_standby(); }
    // What the daemon of a slot says to the request for the lock of a supervisor.
    static std::uint32_t locked_by(unsigned slot, unsigned module)
    {
        return asked(slot, BIOS_MODULE_LOCK_TAKE, module);
    }
    static std::uint32_t freed_by(unsigned slot, unsigned module)
    {
        return asked(slot, BIOS_MODULE_LOCK_RELEASE, module);
    }

private:
    static std::uint32_t asked(unsigned slot, bios_module_lock_operation operation, unsigned module)
    {
        const bios_module_lock_req_t body{be32::of(operation), be32::of(daemon_node(module, true))};
        requester peer;
        const request_reply reply =
            peer.ask(slot, MTS_OPC_BIOS_MODULE_LOCK, {reinterpret_cast<const char *>(&body), sizeof body});
        bios_module_lock_reply_t answer{};
        if (reply.error != 0 || reply.payload.size() < sizeof answer)
            return ~0U;
        std::memcpy(&answer, reply.payload.data(), sizeof answer);
        return answer.result.load();
    }
};

} // namespace

TEST_F(PeerLock, IsHeldUntilItIsFreed)
{
    EXPECT_EQ(locked_by(1, 1), BIOS_OK);
    EXPECT_TRUE(is_locked(1));
    EXPECT_FALSE(is_locked(2));
    const finished_program unlocked = biosctl({"unlock", "1"});
    EXPECT_EQ(unlocked.exit_code, DONE) << unlocked.errors;
    EXPECT_FALSE(is_locked(1));
    expect_next_succeeds();
}

TEST_F(PeerLock, IsRefusedToTheDaemonOfAnotherCard)
{
    ASSERT_EQ(locked_by(1, 2), BIOS_OK);
    EXPECT_EQ(locked_by(2, 2), LOCK_HELD);
    EXPECT_TRUE(is_locked(2));
    ASSERT_EQ(biosctl({"unlock", "2"}).exit_code, DONE);
    EXPECT_EQ(locked_by(2, 2), BIOS_OK);
}

TEST_F(PeerLock, KeepsAnotherCardFromProgramming)
{
    ASSERT_EQ(locked_by(2, 1), BIOS_OK);
    const programming refused = program(1);
    EXPECT_EQ(refused.answer, BIOS_ERR_BUSY) << refused;
    EXPECT_EQ(lines_with(1, "(bios_daemon) ERROR: sup modlock failed err=16 rc="), 1U);
    EXPECT_EQ(child_pid(1), 0);
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);

    ASSERT_EQ(freed_by(2, 1), BIOS_OK);
    expect_next_succeeds();
}

// The daemon keeps the own lock, and the lock service frees it.
TEST_F(PeerLock, OnTheTargetKeepsItFromBeingProgrammed)
{
    ASSERT_EQ(locked_by(2, 2), BIOS_OK);
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
    ASSERT_EQ(locked_by(2, 1), BIOS_OK);
    ASSERT_TRUE(is_locked(1));
    ASSERT_EQ(::kill(daemon_pid(2), SIGKILL), 0);
    EXPECT_TRUE(wait_until([&] { return !is_locked(1); }));
    expect_next_succeeds();
}
