// Supervisors with an ibexpeak chipset: the flash is erased whole and then written, five attempts each. Some of
// them program module 18 whatever is asked for, and some select flash 0 first.
#include <filesystem>

#include "bios_flash.h"
#include "chassis_fixture.h"

namespace
{

constexpr const char *FLASH_SELECTION_REGISTER = "registers/186";

struct chipset_card {
    unsigned card_id;
    unsigned slot;
    unsigned asked_module;
    bool selects_flash;
};

void PrintTo(const chipset_card &card, std::ostream *out)
{
    *out << "card " << card.card_id;
}

class ChipsetCard : public chassis_test, public testing::WithParamInterface<chipset_card>
{
};

class ChipsetFaults : public chassis_test
{
protected:
    void SetUp() override
    {
        insert({.slot = 1, .card_id = 106});
        up();
    }
};

} // namespace

TEST_P(ChipsetCard, IsErasedAndWritten)
{
    const chipset_card &card = GetParam();
    insert({.slot = card.slot, .card_id = card.card_id});
    up();

    const programming seen = program(card.asked_module, {.via = card.slot});

    expect_programmed(seen, card.slot, new_image());
    EXPECT_EQ(seen.module, std::optional(card.slot));
    EXPECT_EQ(lines_with(card.slot, "std_ibexpeak_bios_program: my_src = /bootflash/.tmpbios.bin"), 1U);
    EXPECT_EQ(lines_with(card.slot, "Flash erase successful on 1 iteration"), 1U);
    EXPECT_EQ(lines_with(card.slot, "Flash programming successful on 1 iteration"), 1U);
    const std::string selection = slot_file(card.slot, FLASH_SELECTION_REGISTER);
    EXPECT_EQ(std::filesystem::exists(selection), card.selects_flash);
    if (card.selects_flash) {
        EXPECT_EQ(file_content(selection), "0x800\n");
    }
    expect_tidy(card.slot);
}

INSTANTIATE_TEST_SUITE_P(Families, ChipsetCard,
                         testing::Values(chipset_card{106, 1, 1, false}, chipset_card{107, 1, 1, false},
                                         chipset_card{183, 18, 1, false}, chipset_card{314, 18, 2, true},
                                         chipset_card{316, 18, 30, true}, chipset_card{318, 18, 18, true}),
                         [](const testing::TestParamInfo<chipset_card> &row) {
                             return std::to_string(row.param.card_id);
                         });

TEST_F(ChipsetFaults, EraseIsTriedAgain)
{
    set_faults(1, "fail erase 1 2");
    expect_programmed(program(1), 1, new_image());
    EXPECT_EQ(lines_with(1, "Flash erase failed, retrying...."), 2U);
    EXPECT_EQ(lines_with(1, "Flash erase successful on 3 iteration"), 1U);
    expect_tidy(1);
}

TEST_F(ChipsetFaults, EraseThatAlwaysFailsIsGivenUpAfterFiveAttempts)
{
    set_faults(1, "fail erase always");
    const programming seen = program(1);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_FLASH_ERR_ERASE)) << seen;
    EXPECT_EQ(lines_with(1, "Flash erase failed, retrying...."), 5U);
    EXPECT_TRUE(is_marked(1));
    expect_tidy(1);
    set_faults(1, "");
    expect_next_succeeds();
}

TEST_F(ChipsetFaults, WriteIsTriedAgain)
{
    set_faults(1, "fail program 100");
    const programming seen = program(1);
    expect_programmed(seen, 1, new_image());
    ASSERT_FALSE(seen.progress.empty());
    EXPECT_EQ(seen.progress.back().attempt, 2U);
    EXPECT_EQ(lines_with(1, "Flash program failed, retrying...."), 1U);
    EXPECT_EQ(lines_with(1, "Flash programming successful on 2 iteration"), 1U);
    expect_tidy(1);
}

TEST_F(ChipsetFaults, WriteThatAlwaysFailsIsGivenUpAfterFiveAttempts)
{
    set_faults(1, "fail program always");
    const programming seen = program(1);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_FLASH_ERR_PROGRAM)) << seen;
    EXPECT_EQ(lines_with(1, "Flash program failed, retrying...."), 5U);
    EXPECT_TRUE(is_marked(1));
    std::string version;
    EXPECT_EQ(flash_version(1, version), -61) << version;
    expect_tidy(1);
    set_faults(1, "");
    expect_next_succeeds();
}

TEST_F(ChipsetFaults, WriteProtectedSectorIsNeverErased)
{
    protect(1, "0\n");
    const programming seen = program(1);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_FLASH_ERR_PROTECTED)) << seen;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    EXPECT_FALSE(is_marked(1));
    expect_tidy(1);
    protect(1, "");
    expect_next_succeeds();
}
