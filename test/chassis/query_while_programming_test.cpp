// Version queries while a flash is written: answered at once, from the version that runs, and without a look at the
// flash.
#include <algorithm>

#include "bios_opcodes.h"
#include "chassis_fixture.h"
#include "version_messages.h"

namespace
{

constexpr unsigned FLASH_KIB = 1024;
constexpr auto LONGEST_WAIT = std::chrono::milliseconds(1000); // the daemon's receive wait while its child runs

using steady = std::chrono::steady_clock;

class QueryWhileProgramming : public chassis_test
{
protected:
    QueryWhileProgramming() : chassis_test(daemon_build::shipped) {}
    void insert_slow_card(unsigned slot, const std::string &role)
    {
        insert({.slot = slot,
                .role = role,
                .in_flash = &image("1.2", FLASH_KIB),
                .in_tree = &image("2.5", FLASH_KIB),
                .flash_kib = FLASH_KIB,
                .sector_kib = 64});
    }
    // Operations take as long as in a real part: about 6 s for the whole flash.
    void slow_down(unsigned slot) const { write_file(flash_file(slot, "timing"), "1\n"); }

    // What was done to a flash so far; a programming adds its own part when it is done with the flash.
    std::string wear(unsigned slot) const { return file_content(flash_file(slot, "wear")); }

    std::string ask(std::uint32_t opcode, const std::string &body, unsigned slot = 1)
    {
        const auto start = steady::now();
        const request_reply reply = asking_->ask(slot, opcode, body);
        longest_ = std::max(longest_, steady::now() - start);
        ++asked_;
        EXPECT_EQ(reply.error, 0) << "opcode " << opcode;
        return reply.payload;
    }
    void expect_module(std::uint32_t module, std::uint32_t bios_id, const told_versions &told)
    {
        const std::string payload = ask(MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(module));
        ASSERT_EQ(payload.size(), 408U);
        EXPECT_EQ(payload.substr(4), module_version_answer(module, bios_id, told));
    }
    void expect_card(unsigned slot, const told_versions &told)
    {
        EXPECT_EQ(ask(MTS_OPC_BIOS_GET_LC_BIOS_VERSION, "ABCD", slot), card_version_answer(told));
    }
    void start_asking() { asking_.emplace(); }
    void expect_answered_in_time() const
    {
        const auto longest_ms = std::chrono::duration_cast<std::chrono::milliseconds>(longest_).count();
        std::printf("%u queries, the longest took %lld ms\n", asked_, static_cast<long long>(longest_ms));
        EXPECT_LT(longest_, LONGEST_WAIT);
    }

private:
    std::optional<requester> asking_;
    steady::duration longest_{};
    unsigned asked_ = 0;
};

const std::string &old_version()
{
    return image("1.2", FLASH_KIB).version;
}

const std::string &new_version()
{
    return image("2.5", FLASH_KIB).version;
}

} // namespace

TEST_F(QueryWhileProgramming, IsAnsweredFromTheRunningVersionWithoutReadingTheFlash)
{
    insert_slow_card(1, "active");
    up();
    slow_down(1);
    start_asking();
    requester programmer;
    programming seen = programmer.start(1);
    ASSERT_EQ(seen.answer, 0U) << seen;
    ASSERT_TRUE(wait_until([&] { return child_pid(1) != 0; })); // the answer comes before the fork

    // From the beginning: the image is unpacked, and nobody has touched the flash.
    unsigned before_writing = 0;
    while (!is_marked(1) && !HasFailure()) {
        ASSERT_NE(child_pid(1), 0) << "the programming has ended and the flash was never marked";
        expect_module(1, OWN_CARD_ID, {old_version(), old_version()});
        programmer.take_progress(seen);
        ++before_writing;
    }
    const std::string wear_before = wear(1);
    unsigned while_writing = 0;
    while (is_marked(1) && !HasFailure()) {
        expect_module(1, OWN_CARD_ID, {old_version(), old_version()});
        expect_card(1, {old_version(), old_version()});
        const std::string wear_after = wear(1);
        if (!is_marked(1))
            break; // the programming's own part may be in it
        EXPECT_EQ(wear_after, wear_before) << "the query has read the flash";
        programmer.take_progress(seen);
        ++while_writing;
    }
    std::printf("%u queries before, %u pairs while it was written\n", before_writing, while_writing);
    EXPECT_GT(before_writing, 5U);
    EXPECT_GT(while_writing, 20U);

    // The flash is whole again, but the daemon has not yet learnt of its child's end.
    while (child_pid(1) != 0 && !HasFailure()) {
        const std::string payload = ask(MTS_OPC_BIOS_GET_LC_BIOS_VERSION, "ABCD");
        const bool settled = payload == card_version_answer({new_version(), old_version()});
        programmer.take_progress(seen);
        EXPECT_TRUE(settled || payload == card_version_answer({old_version(), old_version()}));
    }
    programmer.await_end(seen);
    expect_programmed(seen, 1, image("2.5", FLASH_KIB));
    expect_answered_in_time();

    const std::string wear_at_end = wear(1);
    expect_module(1, OWN_CARD_ID, {new_version(), old_version()});
    EXPECT_NE(wear(1), wear_at_end) << "a look at the flash is not counted: the test above cannot fail";
    expect_tidy(1);
}

// The active supervisor's child waits for the other card, and both daemons go on answering.
TEST_F(QueryWhileProgramming, OfAnotherModuleIsForwardedMeanwhile)
{
    insert_slow_card(1, "active");
    insert_slow_card(2, "standby");
    up();
    slow_down(2);
    start_asking();
    requester programmer;
    programming seen = programmer.start(2);
    ASSERT_EQ(seen.answer, 0U) << seen;

    ASSERT_TRUE(wait_until([&] { return is_marked(2); }));
    const std::string wear_before = wear(2);
    unsigned asked = 0;
    while (is_marked(2) && !HasFailure()) {
        expect_module(2, OWN_CARD_ID, {old_version(), old_version()});
        expect_module(1, OWN_CARD_ID, {old_version(), old_version()});
        const std::string wear_after = wear(2);
        if (!is_marked(2))
            break;
        EXPECT_EQ(wear_after, wear_before) << "the query has read the flash";
        programmer.take_progress(seen);
        ++asked;
    }
    EXPECT_GT(asked, 20U);
    programmer.await_end(seen);
    expect_programmed(seen, 2, image("2.5", FLASH_KIB));
    expect_answered_in_time();
    expect_module(2, OWN_CARD_ID, {new_version(), old_version()});
    expect_module(1, OWN_CARD_ID, {old_version(), old_version()});
    expect_tidy(1);
}
