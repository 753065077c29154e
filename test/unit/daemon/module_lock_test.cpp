// Module locks: around a programming, and on behalf of peers.
#include "module_lock.h"

#include <cerrno>

#include "bios_daemon_state.h"
#include "daemon_test.h"

namespace
{

constexpr std::int32_t busy = 0x4071000a;
constexpr char own_lock[] = "modlock_module_lock(129, 0x501, {1, 0, 0, 0x4071000a})";
constexpr char own_unlock[] = "modlock_module_unlock(129, 0x501)";

// Own module 5, a line card in slot 9.
class ModuleLock : public daemon_test
{
protected:
    ModuleLock() { platform().insert_module(9, 2, 30); }

    std::int32_t acquire(std::uint32_t target) { return bios_daemon_acquire_lock(7, 5, target, &held); }
    static lines locks() { return platform().story({"log", "modlock_module_lock", "modlock_module_unlock"}); }

    std::uint32_t held = 77;
};

TEST_F(ModuleLock, TakesOnlyTheOwnLockForTheOwnModule)
{
    EXPECT_EQ(acquire(5), 0);
    EXPECT_EQ(held, 1u);
    EXPECT_EQ(locks(), (lines{"log(locking module here ...)", own_lock}));
}

TEST_F(ModuleLock, TakesTheOwnLockThenTheTargetsForAnotherModule)
{
    EXPECT_EQ(acquire(9), 0);
    EXPECT_EQ(held, 1u);
    EXPECT_EQ(locks(), (lines{"log(locking module here ...)", own_lock,
                              "modlock_module_lock(129, 0x902, {1, 0, 0, 0x4071000a})"}));
}

TEST_F(ModuleLock, AnswersBusyWhenTheOwnLockIsRefused)
{
    platform().next_result("modlock_module_lock", {-3, EBUSY});
    EXPECT_EQ(acquire(9), busy);
    EXPECT_EQ(held, 0u);
    EXPECT_EQ(locks(), (lines{"log(locking module here ...)", own_lock,
                              "log((bios_daemon) ERROR: sup modlock failed err=16 rc=-3)", own_unlock}));
}

TEST_F(ModuleLock, KeepsOwnLockWhenTheTargetIsRefused)
{
    platform().next_result("modlock_module_lock", {0, 0});
    platform().next_result("modlock_module_lock", {-1, EBUSY});
    EXPECT_EQ(acquire(9), busy);
    EXPECT_EQ(held, 0u);
    EXPECT_EQ(locks(), (lines{"log(locking module here ...)", own_lock,
                              "modlock_module_lock(129, 0x902, {1, 0, 0, 0x4071000a})",
                              "log((bios_daemon) ERROR: lc modlock failed err=16 rc=-1)",
                              "modlock_module_unlock(129, 0x902)", "modlock_module_unlock(129, 0x901)"}));
}

TEST_F(ModuleLock, ReportsTheErrnoOfTheLockEvenWhenTheUnlockFailsToo)
{
    platform().next_result("modlock_module_lock", {-1, EACCES});
    platform().every_result("modlock_module_unlock", {-1, ENOENT});
    EXPECT_EQ(acquire(5), busy);
    EXPECT_TRUE(platform().logged("(bios_daemon) ERROR: sup modlock failed err=13 rc=-1"));
}

TEST_F(ModuleLock, CutsNodeIdsTo16Bits)
{
    EXPECT_EQ(bios_daemon_acquire_lock(7, 255, 255, &held), 0);
    EXPECT_EQ(bios_daemon_acquire_lock(7, 0x105, 0x105, &held), 0);
    EXPECT_EQ(platform().calls("modlock_module_lock"),
              (lines{"modlock_module_lock(129, 0xff01, {1, 0, 0, 0x4071000a})", own_lock}));
}

TEST_F(ModuleLock, LocksNodeZeroForAModuleThatCannotExist)
{
    for (const std::uint32_t module : {0u, 233u, 0xffffffffu})
        EXPECT_EQ(acquire(module), 0) << module;
    EXPECT_EQ(platform().calls("modlock_module_lock")[1], "modlock_module_lock(129, 0x0, {1, 0, 0, 0x4071000a})");
}

TEST_F(ModuleLock, ReleasesNothingWhenNothingIsHeld)
{
    held = 0;
    EXPECT_EQ(bios_daemon_release_lock(7, 5, 9, &held), 0);
    EXPECT_EQ(locks(), lines{});
    EXPECT_EQ(held, 0u);
}

TEST_F(ModuleLock, ReleasesTheTargetThenTheOwnLock)
{
    held = 1;
    EXPECT_EQ(bios_daemon_release_lock(7, 5, 9, &held), 0);
    EXPECT_EQ(held, 0u);
    EXPECT_EQ(locks(), (lines{"log(Unlocking module now)", "modlock_module_unlock(129, 0x902)", own_unlock}));
}

TEST_F(ModuleLock, ReleasesTheOwnModuleTwiceWhenItWasTheTarget)
{
    platform().insert_module(5, 1, 30);
    held = 1;
    EXPECT_EQ(bios_daemon_release_lock(7, 5, 5, &held), 0);
    EXPECT_EQ(locks(), (lines{"log(Unlocking module now)", own_unlock, own_unlock}));
}

TEST_F(ModuleLock, IgnoresWhatTheUnlocksReturn)
{
    held = 1;
    platform().every_result("modlock_module_unlock", {-1, EPERM});
    EXPECT_EQ(bios_daemon_release_lock(7, 5, 9, &held), 0);
    EXPECT_EQ(platform().calls("modlock_module_unlock").size(), 2u);
    EXPECT_EQ(platform().logs(), lines{"Unlocking module now"});
}

// A peer's request: operation and node id.
class PeerLock : public daemon_test
{
protected:
    PeerLock() { module_lock_held = 0; }
    ~PeerLock() override { module_lock_held = 0; }

    std::string answer_to(const bytes &body)
    {
        mts_message_t *message = platform().message(4703, request(body));
        serve_module_lock(7, message, message->payload.data());
        const lines answers = platform().calls("cmi_response");
        return answers.empty() ? "no answer" : answers.back();
    }
    static lines locks() { return platform().story({"modlock_module_lock", "modlock_module_unlock"}); }

    const bytes lock_request{0, 0, 0, 2, 0, 0, 9, 2};
    const bytes unlock_request{0, 0, 0, 3, 0, 0, 9, 2};
};

TEST_F(PeerLock, LocksTheNodeForThePeersReason)
{
    EXPECT_EQ(answer_to(lock_request), "cmi_response([00000002 00000902 00000000], 12, 7, #1, 0x0)");
    EXPECT_EQ(locks(), lines{"modlock_module_lock(129, 0x902, {1, 0, 0, 0x4071000b})"});
    EXPECT_EQ(module_lock_held, 1u);
}

TEST_F(PeerLock, AnswersTheErrnoWithTheTopBitWhenTheLockIsRefused)
{
    platform().next_result("modlock_module_lock", {-1, EBUSY});
    EXPECT_EQ(answer_to(lock_request), "cmi_response([00000002 00000902 80000010], 12, 7, #1, 0x0)");
    EXPECT_EQ(module_lock_held, 0u);
}

TEST_F(PeerLock, AnswersOnlyTheLow12BitsOfErrno)
{
    platform().next_result("modlock_module_lock", {-1, 0x5123});
    EXPECT_EQ(answer_to(lock_request), "cmi_response([00000002 00000902 80000123], 12, 7, #1, 0x0)");
}

TEST_F(PeerLock, UnlocksTheNode)
{
    module_lock_held = 1;
    EXPECT_EQ(answer_to(unlock_request), "cmi_response([00000003 00000902 00000000], 12, 7, #1, 0x0)");
    EXPECT_EQ(locks(), lines{"modlock_module_unlock(129, 0x902)"});
    EXPECT_EQ(module_lock_held, 0u);
}

TEST_F(PeerLock, AnswersTheErrnoWhenAHeldLockCannotBeUnlocked)
{
    module_lock_held = 1;
    platform().next_result("modlock_module_unlock", {-1, EPERM});
    EXPECT_EQ(answer_to(unlock_request), "cmi_response([00000003 00000902 80000001], 12, 7, #1, 0x0)");
    EXPECT_EQ(module_lock_held, 1u);
}

TEST_F(PeerLock, AnswersSuccessWhenAnUnlockFailsAndNothingWasLockedForAPeer)
{
    platform().next_result("modlock_module_unlock", {-1, ENOENT});
    EXPECT_EQ(answer_to(unlock_request), "cmi_response([00000003 00000902 00000000], 12, 7, #1, 0x0)");
}

TEST_F(PeerLock, DoesNothingForAnyOtherOperationAndEchoesTheWords)
{
    EXPECT_EQ(answer_to({0, 0, 0, 7, 0x12, 0x34, 9, 2}),
              "cmi_response([00000007 12340902 00000000], 12, 7, #1, 0x0)");
    EXPECT_EQ(answer_to({0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0}),
              "cmi_response([ffffffff 00000000 00000000], 12, 7, #2, 0x0)");
    EXPECT_EQ(answer_to({2, 0, 0, 0, 0, 0, 9, 2}), "cmi_response([02000000 00000902 00000000], 12, 7, #3, 0x0)");
    EXPECT_EQ(locks(), lines{});
}

TEST_F(PeerLock, UsesTheLow16BitsOfTheNodeAndEchoesAllOfIt)
{
    EXPECT_EQ(answer_to({0, 0, 0, 2, 0xab, 0xcd, 9, 2}),
              "cmi_response([00000002 abcd0902 00000000], 12, 7, #1, 0x0)");
    EXPECT_EQ(locks(), lines{"modlock_module_lock(129, 0x902, {1, 0, 0, 0x4071000b})"});
}

TEST_F(PeerLock, TakesAMessageWithoutBodyForOperation0)
{
    mts_message_t *message = platform().message(4703);
    serve_module_lock(7, message, message->payload.data());
    EXPECT_EQ(platform().calls("cmi_response"),
              lines{"cmi_response([00000000 00000000 00000000], 12, 7, #1, 0x0)"});
    EXPECT_EQ(locks(), lines{});
}

TEST_F(PeerLock, LeavesTheDropOfTheMessageToTheCaller)
{
    (void)answer_to(lock_request);
    EXPECT_EQ(platform().calls("mts_drop"), lines{});
}

} // namespace
