// The supervisors change their roles while one of them has another module programmed.
#include "bios_opcodes.h"
#include "bios_results.h"
#include "card_agent_process.h"
#include "chassis_dir.h"
#include "chassis_fixture.h"
#include "held_locks.h"
#include "played_module.h"
#include "sysmgr.h"
#include "without_pauses.h"

namespace
{

constexpr unsigned FIRST = 1; // active at the beginning
constexpr unsigned SECOND = 2;
constexpr unsigned LINE_CARD = 3;
constexpr std::uint32_t FIRST_NODE = 0x101;
constexpr std::uint32_t SECOND_NODE = 0x201;
constexpr std::uint32_t LINE_CARD_NODE = 0x302;

class Switchover : public chassis_test
{
protected:
    void insert_cards()
    {
        insert({.slot = FIRST});
        insert({.slot = SECOND, .role = "standby"});
        insert({.slot = LINE_CARD, .role = "none", .in_tree = nullptr, .serves = false, .kind = "linecard"});
    }
    static void switch_over()
    {
        ASSERT_TRUE(chassis_write_value(chassis_inventory_path(FIRST, "sup_state"), SYSMGR_SUP_STATE_STANDBY));
        ASSERT_TRUE(chassis_write_value(chassis_inventory_path(SECOND, "sup_state"), SYSMGR_SUP_STATE_ACTIVE));
    }
    void expect_notice(requester &listener, std::uint32_t result, std::uint32_t module)
    {
        programming overheard;
        listener.await_end(overheard);
        EXPECT_EQ(overheard.result, std::optional(result)) << overheard;
        EXPECT_EQ(overheard.module, std::optional(module)) << overheard;
    }
};

} // namespace

TEST_F(Switchover, LeavesTheReportAndTheLocksToTheDaemonThatTookTheRequest)
{
    insert_cards();
    up();
    write_file(flash_file(SECOND, "timing"), "1\n");
    requester asking;
    requester listener;
    programming seen = asking.start(SECOND);
    ASSERT_EQ(seen.answer, 0U);
    ASSERT_TRUE(wait_until([&] { return is_marked(SECOND); }));

    switch_over();

    asking.await_end(seen);
    expect_programmed(seen, SECOND, new_image());
    EXPECT_EQ(seen.module, std::optional(SECOND)) << "reported by a notice";
    expect_notice(listener, BIOS_OK, SECOND);
    EXPECT_EQ(lines_with(FIRST, "Un-mark in-progress exit=0 retcode=0"), 1U);
    EXPECT_EQ(lines_with(FIRST, "Unlocking module now"), 1U);
    EXPECT_EQ(lines_with(SECOND, "Unlocking module now"), 0U);
    EXPECT_EQ(locks_held(), held_locks());
    EXPECT_EQ(flash_of(FIRST) == old_image().bytes, true);
    expect_tidy(FIRST);
    expect_tidy(SECOND); // no standby supervisor is left to which the clean-up would send its empty file
}

// The target has become the active one before the request reaches it. It would need its own lock, which the asking
// daemon holds for it.
TEST_F(Switchover, MakesTheTargetRefuseWhatComesTooLate)
{
    insert_cards();
    up();
    requester asking;
    programming seen = asking.start(SECOND);
    ASSERT_EQ(seen.answer, 0U);
    ASSERT_EQ(lines_with(SECOND, "got MTS_OPC_BIOS_PROGRAMMING_START"), 0U)
        << "the supervisor has not unpacked yet";
    switch_over();
    asking.await_end(seen);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_ERR_NOT_SENT)) << seen;
    EXPECT_EQ(lines_with(SECOND, "(bios_daemon) ERROR: sup modlock failed err=16 rc="), 1U);
    EXPECT_EQ(lines_with(FIRST, "resp = " + std::to_string(static_cast<std::int32_t>(BIOS_ERR_BUSY))), 1U);
    EXPECT_EQ(locks_held(), held_locks());
    EXPECT_EQ(flash_of(SECOND) == old_image().bytes, true);
}

// The new active supervisor gets its own lock and not that of the line card, and keeps none of them.
TEST_F(Switchover, KeepsTheNewActiveSupervisorFromTheModuleThatIsProgrammed)
{
    const held_locks of_the_first = {{FIRST_NODE, FIRST}, {LINE_CARD_NODE, FIRST}};
    insert_cards();
    up();
    const card_agent_process agent(chassis_directory(), LINE_CARD);
    played_module line_card(chassis_directory(), LINE_CARD);
    requester asking;
    programming seen = asking.start(LINE_CARD);
    ASSERT_TRUE(line_card.await_request(MTS_OPC_BIOS_PROGRAMMING_START));
    line_card.answer(0);
    ASSERT_EQ(locks_held(), of_the_first);

    switch_over();
    requester other;
    for (const unsigned module : {LINE_CARD, FIRST}) {
        EXPECT_EQ(other.start(module, {.via = SECOND}).answer, BIOS_ERR_BUSY) << module;
        EXPECT_EQ(locks_held(), of_the_first) << module;
    }
    EXPECT_EQ(lines_with(SECOND, "(bios_daemon) ERROR: lc modlock failed err=16 rc="), 2U);
    EXPECT_EQ(child_pid(SECOND), 0);

    ASSERT_TRUE(line_card.send_end(BIOS_OK));
    asking.await_end(seen);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_OK)) << seen;
    EXPECT_EQ(seen.module, std::optional(LINE_CARD));
    EXPECT_EQ(locks_held(), held_locks());

    expect_programmed(program(SECOND, {.via = SECOND}), SECOND, new_image());
    EXPECT_EQ(locks_held(), held_locks());
}

// What decides on a report, and on the locks, is the state at the daemon's last request, refused or not. Whoever
// asks one of the two again after the switchover changes what becomes of the programming that runs.
using SwitchoverAskedAgain = Switchover;

// The target tells its end to all that listen, and no more to the supervisor that waits for it.
TEST_F(SwitchoverAskedAgain, TheTargetReportsToAllAndTheFirstSupervisorGivesUp)
{
    insert_cards();
    up();
    write_file(flash_file(SECOND, "timing"), "1\n");
    requester asking;
    programming seen = asking.start(SECOND);
    ASSERT_EQ(seen.answer, 0U);
    ASSERT_TRUE(wait_until([&] { return is_marked(SECOND); }));
    switch_over();

    requester other;
    programming refused = other.start(SECOND, {.via = SECOND});
    EXPECT_EQ(refused.answer, BIOS_ERR_BUSY);
    EXPECT_EQ(lines_with(SECOND, "Sorry busy ... in progress here "), 1U);
    EXPECT_EQ(locks_held(), (held_locks{{FIRST_NODE, FIRST}, {SECOND_NODE, FIRST}}));

    asking.await_end(seen);
    expect_programmed(seen, SECOND, new_image()); // the target's notice
    EXPECT_EQ(locks_held(), (held_locks{{FIRST_NODE, FIRST}, {SECOND_NODE, FIRST}}));
    write_file(card_file(FIRST, CHILD_RECEIVE_MS), "1\n");
    seen.result.reset();
    asking.await_end(seen);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_ERR_NO_COMPLETION)) << seen;
    EXPECT_EQ(locks_held(), held_locks());
}

// The former active supervisor's daemon would take the request, with the image that it has unpacked for the line
// card, and forget the child that waits for the line card. It is not offered the request.
TEST_F(SwitchoverAskedAgain, TheFirstSupervisorRefusesAndReportsTheProgrammingThatRuns)
{
    const held_locks of_the_first = {{FIRST_NODE, FIRST}, {LINE_CARD_NODE, FIRST}};
    insert_cards();
    up();
    played_module line_card(chassis_directory(), LINE_CARD);
    requester asking;
    programming seen = asking.start(LINE_CARD);
    ASSERT_TRUE(line_card.await_request(MTS_OPC_BIOS_PROGRAMMING_START));
    line_card.answer(0);
    switch_over();

    EXPECT_EQ(program(FIRST).answer, BIOS_ERR_BUSY);
    EXPECT_EQ(flash_of(FIRST) == old_image().bytes, true);
    EXPECT_EQ(locks_held(), of_the_first);

    ASSERT_TRUE(line_card.send_end(BIOS_OK));
    asking.await_end(seen);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_OK)) << seen;
    EXPECT_EQ(seen.module, std::optional(LINE_CARD));
    EXPECT_EQ(locks_held(), held_locks());
}
