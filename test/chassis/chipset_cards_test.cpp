// Supervisors with an ibexpeak chipset: the flash is erased whole and then written, five attempts each.
#include <filesystem>

#include "bios_flash.h"
#include "chassis_fixture.h"

namespace
{

constexpr const char *FLASH_SELECTION_REGISTER = "registers/186";

class ChipsetCard : public chassis_test, public testing::WithParamInterface<unsigned> // card id
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
    insert({.slot = 1, .card_id = GetParam()});
    up();

    const programming seen = program(1);

    expect_programmed(seen, 1, new_image());
    EXPECT_EQ(seen.module, std::optional<std::uint32_t>(1));
    EXPECT_EQ(lines_with(1, "std_ibexpeak_bios_program: my_src = /bootflash/.tmpbios.bin"), 1U);
    EXPECT_EQ(lines_with(1, "Flash erase successful on 1 iteration"), 1U);
    EXPECT_EQ(lines_with(1, "Flash programming successful on 1 iteration"), 1U);
    EXPECT_FALSE(std::filesystem::exists(slot_file(1, FLASH_SELECTION_REGISTER)));
    expect_tidy(1);
}

INSTANTIATE_TEST_SUITE_P(Families, ChipsetCard, testing::Values(106U, 107U),
                         [](const testing::TestParamInfo<unsigned> &row) { return std::to_string(row.param); });

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
