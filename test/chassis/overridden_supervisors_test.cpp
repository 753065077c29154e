// Supervisors of the card ids that take every request for module 18. What is forwarded is the request as it came,
// with the module that it names.
#include <filesystem>

#include "bios_flash.h"
#include "bios_opcodes.h"
#include "bios_results.h"
#include "chassis_fixture.h"
#include "held_locks.h"
#include "played_module.h"

namespace
{

constexpr unsigned OTHER = 17;
constexpr unsigned OVERRIDE = 18;
constexpr unsigned LINE_CARD = 3;
constexpr std::uint32_t OTHER_NODE = 0x1101;
constexpr std::uint32_t OVERRIDE_NODE = 0x1201;
constexpr const char *FLASH_SELECTION_REGISTER = "registers/186";

struct overridden_card {
    unsigned card_id;
    bool selects_flash;
};

void PrintTo(const overridden_card &card, std::ostream *out)
{
    *out << "card " << card.card_id;
}

class OverriddenSupervisors : public chassis_test, public testing::WithParamInterface<overridden_card>
{
protected:
    void insert_supervisors(unsigned active)
    {
        const unsigned card_id = GetParam().card_id;
        for (const unsigned slot : {OTHER, OVERRIDE})
            insert({.slot = slot, .role = slot == active ? "active" : "standby", .card_id = card_id});
    }
    // asked: the modules that the slot's daemon was asked for, each once.
    void expect_overridden(unsigned slot, const std::vector<unsigned> &asked) const
    {
        for (const unsigned module : asked) {
            const std::string line = "main: *** tarvik-a hack: sup_id=" + std::to_string(GetParam().card_id) +
                                     ", module_num=" + std::to_string(module) +
                                     ", my_module_num=" + std::to_string(slot);
            EXPECT_EQ(lines_with(slot, line), 1U) << line;
        }
        EXPECT_EQ(lines_with(slot, "main: *** tarvik-a hack: setting module_num to 18"), asked.size());
    }
    // In the slot's programming child, of which there was one.
    void expect_own_card_id_used(unsigned slot) const
    {
        const std::string id = std::to_string(GetParam().card_id);
        EXPECT_EQ(lines_with(slot, "bios_daemon_child_process: **** hack: received card_id=" + id), 1U);
        EXPECT_EQ(lines_with(slot, "bios_daemon_child_process: **** hack: modified card_id=" + id), 1U);
        EXPECT_EQ(lines_with(slot, ": Module=17 CardId=" + id), 1U);
    }
    void expect_selection(unsigned slot, bool asked) const
    {
        const std::string selection = slot_file(slot, FLASH_SELECTION_REGISTER);
        const bool selected = asked && GetParam().selects_flash;
        EXPECT_EQ(std::filesystem::exists(selection), selected) << "slot " << slot;
        if (selected) {
            EXPECT_EQ(std::stoul(file_content(selection), nullptr, 0), 2048U);
        }
    }
};

// One of them stands for all where no flash is concerned.
class OverriddenSupervisor : public OverriddenSupervisors
{
};

std::string name_of_row(const testing::TestParamInfo<overridden_card> &row)
{
    return std::to_string(row.param.card_id);
}

} // namespace

TEST_P(OverriddenSupervisors, ForwardToModule18)
{
    insert_supervisors(OTHER);
    up();
    keep_pauses(OTHER); // the locks are looked at while it is at work
    requester asking;
    programming seen = asking.start(OVERRIDE, {.via = OTHER});
    ASSERT_EQ(seen.answer, 0U) << seen;
    EXPECT_EQ(locks_held(), (held_locks{{OTHER_NODE, OTHER}, {OVERRIDE_NODE, OTHER}}));
    asking.await_end(seen);

    expect_programmed(seen, OVERRIDE, new_image());
    EXPECT_EQ(seen.module, std::optional(OVERRIDE));
    EXPECT_EQ(flash_of(OTHER) == old_image().bytes, true);
    for (const unsigned slot : {OTHER, OVERRIDE}) {
        expect_overridden(slot, {OVERRIDE});
        expect_own_card_id_used(slot);
        expect_selection(slot, true);
    }
    EXPECT_EQ(locks_held(), held_locks());
    expect_tidy(OTHER);
    expect_tidy(OVERRIDE, {".tmpbios.bin"}); // the empty one that the active supervisor's clean-up leaves
}

// Module 18 is locked and reported, but the forwarded request still names the supervisor itself: its daemon is
// asked, and is busy.
TEST_P(OverriddenSupervisors, AskThemselvesWhenTheOwnModuleIsNamed)
{
    insert_supervisors(OTHER);
    up();
    const programming seen = program(OTHER, {.via = OTHER});
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_ERR_NOT_SENT)) << seen;
    EXPECT_EQ(seen.module, std::optional(OVERRIDE));
    EXPECT_TRUE(seen.progress.empty()) << seen;
    EXPECT_EQ(lines_with(OTHER, "mod=17 dest_node=1101"), 1U);
    EXPECT_EQ(lines_with(OTHER, "Sorry busy ... in progress here "), 1U);
    EXPECT_EQ(lines_with(OTHER, "main: *** tarvik-a hack: setting module_num to 18"), 2U);
    expect_own_card_id_used(OTHER);
    expect_selection(OTHER, true);
    EXPECT_EQ(lines_with(OVERRIDE, "got MTS_OPC_BIOS_PROGRAMMING_START"), 0U);
    expect_selection(OVERRIDE, false);
    for (const unsigned slot : {OTHER, OVERRIDE})
        EXPECT_EQ(flash_of(slot) == old_image().bytes, true) << "slot " << slot;
    EXPECT_EQ(locks_held(), held_locks());
    expect_tidy(OTHER);
}

TEST_P(OverriddenSupervisors, ProgramThemselvesInSlot18WhateverIsNamed)
{
    insert_supervisors(OVERRIDE);
    up();
    const programming seen = program(OTHER, {.via = OVERRIDE});
    expect_programmed(seen, OVERRIDE, new_image());
    EXPECT_EQ(seen.module, std::optional(OVERRIDE));
    expect_overridden(OVERRIDE, {OTHER});
    expect_own_card_id_used(OVERRIDE);
    expect_selection(OVERRIDE, true);
    EXPECT_EQ(lines_with(OVERRIDE, "std_ibexpeak_bios_program: my_src = /bootflash/.tmpbios.bin"), 1U);
    EXPECT_EQ(lines_with(OVERRIDE, "Flash erase successful on 1 iteration"), 1U);
    EXPECT_EQ(lines_with(OVERRIDE, "Flash programming successful on 1 iteration"), 1U);
    EXPECT_EQ(lines_with(OTHER, "got MTS_OPC_BIOS_PROGRAMMING_START"), 0U);
    expect_selection(OTHER, false);
    EXPECT_EQ(flash_of(OTHER) == old_image().bytes, true);
    EXPECT_EQ(locks_held(), held_locks());
    expect_tidy(OVERRIDE);
}

INSTANTIATE_TEST_SUITE_P(Cards, OverriddenSupervisors,
                         testing::Values(overridden_card{183, false}, overridden_card{282, false},
                                         overridden_card{314, true}, overridden_card{316, true},
                                         overridden_card{318, true}),
                         name_of_row);

// A line card's module is asked for as it is named, under the lock and in the name of module 18.
TEST_P(OverriddenSupervisor, ForwardsTheRequestToTheModuleThatItNames)
{
    insert_supervisors(OTHER);
    insert({.slot = LINE_CARD, .role = "none", .in_tree = nullptr, .serves = false, .kind = "linecard"});
    up();
    played_module line_card(chassis_directory(), LINE_CARD);
    requester asking;
    programming seen = asking.start(LINE_CARD, {.via = OTHER});
    ASSERT_EQ(seen.answer, 0U) << seen;
    ASSERT_TRUE(line_card.await_request(MTS_OPC_BIOS_PROGRAMMING_START));
    const bios_programming_req_t asked = programming_request(LINE_CARD, {});
    EXPECT_EQ(line_card.body(), std::string(reinterpret_cast<const char *>(&asked), sizeof asked));
    EXPECT_EQ(locks_held(), (held_locks{{OTHER_NODE, OTHER}, {OVERRIDE_NODE, OTHER}}));
    line_card.answer(0);
    ASSERT_TRUE(line_card.send_end(BIOS_FLASH_ERR_ERASE));
    asking.await_end(seen);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_FLASH_ERR_ERASE)) << seen;
    EXPECT_EQ(seen.module, std::optional(OVERRIDE));
    expect_overridden(OTHER, {LINE_CARD});
    EXPECT_EQ(lines_with(OVERRIDE, "got MTS_OPC_BIOS_PROGRAMMING_START"), 0U);
    EXPECT_EQ(flash_of(OVERRIDE) == old_image().bytes, true);
    EXPECT_EQ(locks_held(), held_locks());
    expect_tidy(OTHER);
}

INSTANTIATE_TEST_SUITE_P(Cards, OverriddenSupervisor, testing::Values(overridden_card{316, true}), name_of_row);
