// Selection of a BIOS flash through the card control register.
#include "flash_selection.h"

#include <cerrno>

#include "daemon_test.h"

namespace
{

class FlashSelection : public daemon_test
{
protected:
    std::int32_t select_on(int card_id, std::uint32_t flash)
    {
        platform().module_info_card_id = static_cast<std::uint16_t>(card_id);
        return bios_sel_flash(flash);
    }
    static lines register_writes() { return platform().calls("cctrl_write_reg3"); }
};

TEST_F(FlashSelection, WritesTheRegisterForFlash0OnEachBoardThatCan)
{
    for (const int card_id : {314, 316, 318})
        EXPECT_EQ(select_on(card_id, 0), 0) << card_id;
    EXPECT_EQ(register_writes(), lines(3, "cctrl_write_reg3(186, 2048)"));
    EXPECT_EQ(printed(), "card_id = 314\ncard_id = 316\ncard_id = 318\n");
}

TEST_F(FlashSelection, WritesTheRegisterForFlash1)
{
    EXPECT_EQ(select_on(316, 1), 0);
    EXPECT_EQ(register_writes(), lines{"cctrl_write_reg3(186, 3072)"});
}

TEST_F(FlashSelection, WritesZeroForAnyOtherFlash)
{
    EXPECT_EQ(select_on(316, 2), 0);
    EXPECT_EQ(select_on(318, 0xffffffff), 0);
    EXPECT_EQ(register_writes(), lines(2, "cctrl_write_reg3(186, 0)"));
    EXPECT_THAT(printed(), testing::HasSubstr("error: flash num not supported."));
}

TEST_F(FlashSelection, WritesNothingOnOtherBoards)
{
    for (const int card_id : {183, 282, 315, 1, 65535})
        EXPECT_EQ(select_on(card_id, 0), 0) << card_id;
    EXPECT_EQ(register_writes(), lines{});
    EXPECT_THAT(printed(), testing::StartsWith("card_id = 183\nerror: flash sel not supported on this platform."));
    EXPECT_EQ(platform().logs(), lines{});
}

TEST_F(FlashSelection, ReportsARegisterThatCannotBeWritten)
{
    platform().next_result("cctrl_write_reg3", {5, EIO});
    EXPECT_EQ(select_on(314, 0), -1);
    EXPECT_THAT(printed(), testing::HasSubstr("error: failed to write flash control register"));
    EXPECT_EQ(platform().logs(), lines{});
}

TEST_F(FlashSelection, ReportsACardIdThatCannotBeRead)
{
    platform().next_result("get_card_module_info", {-1, EIO});
    EXPECT_EQ(select_on(314, 0), 0x40710030);
    EXPECT_TRUE(platform().logged("get sw card id failed"));
    EXPECT_EQ(register_writes(), lines{});
    EXPECT_THAT(printed(), testing::Not(testing::HasSubstr("card_id =")));
}

TEST_F(FlashSelection, TakesCardIdZeroForOneThatCannotBeRead)
{
    EXPECT_EQ(select_on(0, 0), 0x40710030);
}

} // namespace
