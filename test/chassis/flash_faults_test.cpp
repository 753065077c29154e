// Flashes that fail, and what the daemon makes of it: retries, warnings, codes, and a flash that the next request
// repairs.
#include "bios_flash.h"
#include "chassis_fixture.h"

namespace
{

constexpr const char *WARNING_BLOCK[] = {
    "ERROR: could not program flash",
    "CAUTION: Your BIOS may be in corrupted state",
    "         please try programming it again and DO NOT",
    "         reboot without programming it successfully",
    "         otherwise you have to manually take out the",
    "         flash from the card and program it in a BIOS",
    "         programming station.",
};
constexpr unsigned ATTEMPTS = 4;
constexpr unsigned SECTORS = SMALL_FLASH_KIB / 16;

class FlashFaults : public chassis_test
{
protected:
    void SetUp() override
    {
        insert({.slot = 1});
        up();
    }
    void expect_warnings(unsigned count) const
    {
        for (const char *line : WARNING_BLOCK)
            EXPECT_EQ(lines_with(1, line), count) << line;
    }
    void expect_retry_succeeds(const std::string &rule)
    {
        set_faults(1, rule);
        const programming seen = program(1);
        expect_programmed(seen, 1, new_image());
        ASSERT_FALSE(seen.progress.empty());
        EXPECT_EQ(seen.progress.back().attempt, 2U);
        expect_warnings(1);
        expect_tidy(1);
    }
    void expect_given_up(const std::string &rule, std::uint32_t code)
    {
        set_faults(1, rule);
        const programming seen = program(1);
        EXPECT_EQ(seen.result, std::optional(code)) << seen;
        EXPECT_FALSE(seen.verified()) << seen;
        expect_warnings(ATTEMPTS);
        EXPECT_TRUE(is_marked(1));
        std::string version;
        EXPECT_EQ(flash_version(1, version), -61) << version;
        EXPECT_FALSE(card_has(1, "/mnt/pss/bios_run_ver")) << "the record outlived the failure";
        expect_tidy(1);

        set_faults(1, "");
        expect_next_succeeds();
    }
};

} // namespace

TEST_F(FlashFaults, SecondAttemptSucceedsAfterAFailedErase)
{
    expect_retry_succeeds("fail erase 3");
}

TEST_F(FlashFaults, SecondAttemptSucceedsAfterAFailedPageProgram)
{
    expect_retry_succeeds("fail program 100");
}

TEST_F(FlashFaults, SecondAttemptSucceedsAfterAWriteThatDidNothing)
{
    expect_retry_succeeds("lie program 100");
}

TEST_F(FlashFaults, EraseThatAlwaysFailsIsGivenUpAfterFourAttempts)
{
    expect_given_up("fail erase always", BIOS_FLASH_ERR_ERASE);
}

TEST_F(FlashFaults, PageProgramThatAlwaysFailsIsGivenUpAfterFourAttempts)
{
    expect_given_up("fail program always", BIOS_FLASH_ERR_PROGRAM);
}

TEST_F(FlashFaults, WriteProtectedSectorIsRefusedAtOnceAndNothingIsTouched)
{
    protect(1, std::to_string(SECTORS - 1) + "\n");
    const programming seen = program(1);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_FLASH_ERR_PROTECTED)) << seen;
    expect_warnings(0);
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    EXPECT_FALSE(is_marked(1));
    std::string version;
    EXPECT_EQ(flash_version(1, version), 0);
    EXPECT_EQ(version, old_image().version);
    expect_tidy(1);

    protect(1, "");
    expect_next_succeeds();
}
