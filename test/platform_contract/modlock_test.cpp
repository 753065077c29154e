// platform/modlock.h: one holder at a time, across processes and cards, for no longer than its process lives.
#include "modlock.h"

#include "contract_test.h"

namespace
{

constexpr std::uint32_t NODE_ID = 0xfe03; // of no module
constexpr std::uint32_t OWNER = 129;
constexpr std::uint32_t REQUEST[4] = {1, 0, 0, 0x4071000b};

std::string command(const char *what, std::uint32_t node_id = NODE_ID)
{
    return what + (" " + std::to_string(node_id));
}

std::int32_t take(std::uint32_t node_id = NODE_ID)
{
    errno = 0;
    return modlock_module_lock(OWNER, node_id, REQUEST);
}

std::int32_t take_to_program(std::uint32_t node_id)
{
    constexpr std::uint32_t TO_PROGRAM[4] = {1, 0, 0, 0x4071000a};
    errno = 0;
    return modlock_module_lock(OWNER, node_id, TO_PROGRAM);
}

std::int32_t release(std::uint32_t node_id = NODE_ID)
{
    errno = 0;
    return modlock_module_unlock(OWNER, node_id);
}

class Modlock : public SameCardTest
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(prepare_locks(), 0) << "errno " << errno;
        SameCardTest::SetUp();
    }
    void TearDown() override
    {
        (void)release();
        (void)release(NODE_ID + 1);
        (void)release(NODE_ID + 2);
    }
};

class ModlockAcrossCards : public OtherCardTest
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(prepare_locks(), 0) << "errno " << errno;
        OtherCardTest::SetUp();
    }
    void TearDown() override { (void)release(own_node()); }
};

} // namespace

TEST_F(Modlock, IsRefusedWithEbusyWhileAnotherProcessHoldsIt)
{
    ASSERT_EQ(peer_->ask(command("lock")), "ok");
    double waited_s = 0;
    waited_s = seconds_of([] {
        EXPECT_NE(take(), 0);
        EXPECT_EQ(errno, EBUSY);
    });
    EXPECT_LT(waited_s, 2) << "it is not to wait";
}

TEST_F(Modlock, IsFreeAfterItsHolderHasUnlockedIt)
{
    ASSERT_EQ(peer_->ask(command("lock")), "ok");
    ASSERT_EQ(peer_->ask(command("unlock")), "ok");
    EXPECT_EQ(take(), 0);
}

TEST_F(Modlock, IsOfOneNodeAndLeavesTheOthersFree)
{
    ASSERT_EQ(peer_->ask(command("lock")), "ok");
    EXPECT_EQ(take(NODE_ID + 1), 0);
    EXPECT_EQ(release(NODE_ID + 1), 0);
}

TEST_F(Modlock, IsGrantedAgainToItsHolderAndOneUnlockFreesIt)
{
    ASSERT_EQ(take(), 0);
    ASSERT_EQ(take(), 0);
    ASSERT_EQ(release(), 0);
    EXPECT_EQ(peer_->ask(command("lock")), "ok");
}

// A programming of another module holds that of its own module as well.
TEST_F(Modlock, IsHeldForTwoNodesByOneProcess)
{
    const std::string busy = "errno " + std::to_string(EBUSY);
    ASSERT_EQ(take(), 0);
    ASSERT_EQ(take(NODE_ID + 1), 0) << "errno " << errno;
    EXPECT_EQ(peer_->ask(command("lock")), busy);
    EXPECT_EQ(peer_->ask(command("lock", NODE_ID + 1)), busy);
    ASSERT_EQ(release(), 0) << "errno " << errno;
    EXPECT_EQ(peer_->ask(command("lock")), "ok");
    EXPECT_EQ(peer_->ask(command("lock", NODE_ID + 1)), busy) << "freed with the other";
    EXPECT_EQ(release(NODE_ID + 1), 0) << "errno " << errno;
    EXPECT_EQ(peer_->ask(command("lock", NODE_ID + 1)), "ok");
}

TEST_F(Modlock, IsNotKeptForAProgrammingThatCannotHaveAllOfItsLocks)
{
    ASSERT_EQ(peer_->ask(command("lock")), "ok");
    ASSERT_EQ(take_to_program(NODE_ID + 1), 0) << "errno " << errno;
    ASSERT_EQ(take(NODE_ID + 2), 0) << "errno " << errno;
    EXPECT_NE(take(), 0) << "for another reason";
    EXPECT_EQ(peer_->ask(command("lock", NODE_ID + 1)), "errno " + std::to_string(EBUSY));

    EXPECT_NE(take_to_program(NODE_ID), 0);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(peer_->ask(command("lock", NODE_ID + 1)), "ok") << "a lock to program stayed";
    EXPECT_EQ(peer_->ask(command("lock", NODE_ID + 2)), "errno " + std::to_string(EBUSY))
        << "another lock was freed";
}

TEST_F(Modlock, IsReleasedForBothNodesWhenTheirOwnerDies)
{
    ASSERT_EQ(peer_->ask(command("lock")), "ok");
    ASSERT_EQ(peer_->ask(command("lock", NODE_ID + 1)), "ok");
    peer_->finish("die");
    EXPECT_EQ(take(), 0) << "errno " << errno;
    EXPECT_EQ(take(NODE_ID + 1), 0) << "errno " << errno;
}

TEST_F(Modlock, IsReleasedWhenItsOwnerDies)
{
    ASSERT_EQ(peer_->ask(command("lock")), "ok");
    ASSERT_NE(take(), 0);
    peer_->finish("die");
    EXPECT_EQ(take(), 0) << "errno " << errno;
}

TEST_F(Modlock, IsReleasedWhenItsOwnerEnds)
{
    ASSERT_EQ(peer_->ask(command("lock")), "ok");
    peer_->finish("end");
    EXPECT_EQ(take(), 0) << "errno " << errno;
}

TEST_F(Modlock, IsNotInheritedByAForkedChild)
{
    ASSERT_EQ(take(), 0);
    EXPECT_EQ(exit_status_of_child([] { return take() == 0 ? 1 : errno; }), EBUSY);
    EXPECT_EQ(exit_status_of_child([] { return release() == 0 ? 1 : errno; }), EPERM);
}

TEST_F(Modlock, StaysWithItsHolderWhenAForkedChildEnds)
{
    ASSERT_EQ(take(), 0);
    ASSERT_EQ(exit_status_of_child([] { return 0; }), 0);
    EXPECT_EQ(peer_->ask(command("lock")), "errno " + std::to_string(EBUSY));
}

TEST_F(Modlock, UsesSixteenBitsOfTheNodeId)
{
    ASSERT_EQ(take(0x50000 | NODE_ID), 0);
    EXPECT_EQ(peer_->ask(command("lock")), "errno " + std::to_string(EBUSY));
}

TEST_F(Modlock, IsNotFreedByAnotherProcess)
{
    ASSERT_EQ(peer_->ask(command("lock")), "ok");
    EXPECT_NE(release(), 0);
    EXPECT_EQ(errno, EPERM);
    EXPECT_NE(take(), 0);
}

TEST_F(Modlock, IsNotFreedWhenNobodyHoldsIt)
{
    EXPECT_NE(release(), 0);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ModlockAcrossCards, IsRefusedWithEbusyWhileAnotherCardHoldsIt)
{
    ASSERT_EQ(peer_->ask(command("lock", own_node())), "ok");
    EXPECT_NE(take(own_node()), 0);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(peer_->ask(command("unlock", own_node())), "ok");
    EXPECT_EQ(take(own_node()), 0);
}

TEST_F(ModlockAcrossCards, IsRefusedToAnotherCardWhileThisOneHoldsIt)
{
    ASSERT_EQ(take(own_node()), 0) << "errno " << errno;
    EXPECT_EQ(peer_->ask(command("lock", own_node())), "errno " + std::to_string(EBUSY));
    EXPECT_EQ(release(own_node()), 0) << "errno " << errno;
    EXPECT_EQ(peer_->ask(command("lock", own_node())), "ok");
}

TEST_F(ModlockAcrossCards, IsReleasedWhenItsOwnerOnAnotherCardDies)
{
    ASSERT_EQ(peer_->ask(command("lock", own_node())), "ok");
    peer_->finish("die");
    EXPECT_EQ(take(own_node()), 0) << "errno " << errno;
}
