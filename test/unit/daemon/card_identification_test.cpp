// Which card this is: hardware card id, hw.change.bit and table family.
#include "card_identification.h"

#include <cerrno>
#include <map>

#include "card_groups.h"
#include "daemon_test.h"

namespace
{

using CardId = daemon_test;

TEST_F(CardId, IsTheWordOfTheModuleInformation)
{
    platform().module_info_card_id = 316;
    EXPECT_EQ(get_sw_card_id(), 316u);
    EXPECT_EQ(platform().calls("get_card_module_info"), lines{"get_card_module_info(cleared)"});
    EXPECT_EQ(platform().logs(), lines{});
}

TEST_F(CardId, IsAnUnsigned16BitNumber)
{
    platform().module_info_card_id = 0xfffe;
    EXPECT_EQ(get_sw_card_id(), 0xfffeu);
}

TEST_F(CardId, Is0WhenTheModuleInformationCannotBeRead)
{
    platform().module_info_card_id = 316;
    for (const int result : {-1, 1}) {
        platform().next_result("get_card_module_info", {result, EIO});
        EXPECT_EQ(get_sw_card_id(), 0u);
    }
    EXPECT_EQ(platform().logs(), lines(2, "Error in getting module information\\n"));
}

using HwChangeBit = daemon_test;

TEST_F(HwChangeBit, IsTheWordAtByte174OfTheSprom)
{
    platform().hw_change_bit = 0x81020304;
    platform().next_result("sse_call", {9, 0});
    std::uint32_t value = 77;
    EXPECT_EQ(get_hw_change_bit(&value), 9);
    EXPECT_EQ(value, 0x81020304u);
    EXPECT_EQ(platform().story({"sprom_cleanup_dev", "sprom_init_dev", "sse_call", "log"}),
              (lines{"sprom_cleanup_dev(3, 0, 512, 0)", "sprom_init_dev(3, 0, 512, 0)",
                     "sse_call(102, 3, 0, 0, 0, 512, 0, 0, destination, 0)",
                     "log(get_hw_change_bit/159: SPROM Read successfull ret value 9 and hw.change.bit value is "
                     "0x81020304\\n)"}));
}

TEST_F(HwChangeBit, Is0WhenTheSpromCannotBeRead)
{
    platform().hw_change_bit = 3;
    platform().next_result("sse_call", {-7, EIO});
    std::uint32_t value = 77;
    EXPECT_EQ(get_hw_change_bit(&value), -7);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(platform().logs(), lines{"get_hw_change_bit/154: read from SPROM failed, [Input/output error]\\n"});
}

TEST_F(HwChangeBit, IsReadEvenWhenTheDeviceCannotBeReset)
{
    platform().hw_change_bit = 3;
    platform().next_result("sprom_cleanup_dev", {-1, EIO});
    platform().next_result("sprom_init_dev", {-1, EIO});
    std::uint32_t value = 0;
    EXPECT_EQ(get_hw_change_bit(&value), 0);
    EXPECT_EQ(value, 3u);
}

using CardFamily = daemon_test;

TEST_F(CardFamily, IsKnownForEveryCardAndUnknownForAnyOther)
{
    std::map<std::uint32_t, std::uint32_t> families;
    const auto belong_to = [&families](std::uint32_t family, std::initializer_list<std::uint32_t> card_ids) {
        for (const std::uint32_t card_id : card_ids)
            families[card_id] = family;
    };
    belong_to(17, {90, 93, 94, 95, 96, 97});
    belong_to(19, {106, 108});
    belong_to(21, {109, 110, 111, 112});
    belong_to(23, {107, 115, 126, 140, 141, 148, 176, 198, 236});
    belong_to(26, {183, 206, 248, 249, 283, 300});
    belong_to(28, {222, 223});
    belong_to(30, {271});
    belong_to(31, {272});
    belong_to(34, {282});
    belong_to(35, {314});
    belong_to(36, {316});
    belong_to(37, {318});

    for (std::uint32_t card_id = 0; card_id <= 0xffff; ++card_id) {
        if (card_id == 182)
            continue;
        const auto known = families.find(card_id);
        ASSERT_EQ(get_sw_card_family(card_id), known == families.end() ? 9999u : known->second) << card_id;
    }
    EXPECT_EQ(platform().calls("sse_call"), lines{});
}

TEST_F(CardFamily, OfCard182FollowsTheHwChangeBit)
{
    const std::map<std::uint32_t, std::uint32_t> families{{0, 29}, {1, 29},  {2, 29},          {3, 32},
                                                          {4, 33}, {99, 33}, {0x80000000, 33}, {0xffffffff, 33}};
    for (const auto &[hw_change_bit, family] : families) {
        platform().hw_change_bit = hw_change_bit;
        EXPECT_EQ(get_sw_card_family(182), family) << hw_change_bit;
        EXPECT_EQ(platform().logs().back(),
                  "get_sw_card_family/183: hw.change.bit value " + hexed(hw_change_bit) + "\\n");
    }
}

TEST_F(CardFamily, OfCard182IsTheNewestWhenTheSpromCannotBeRead)
{
    platform().next_result("sse_call", {-1, EIO});
    EXPECT_EQ(get_sw_card_family(182), 33u);
    EXPECT_EQ(platform().logs(), (lines{"get_hw_change_bit/154: read from SPROM failed, [Input/output error]\\n",
                                        "get_sw_card_family/179: Failed to read hw.change.bit \\n"}));
}

TEST_F(CardFamily, OfCard182IsReadWhenTheServiceCallReturnsAPositiveStatus)
{
    platform().hw_change_bit = 3;
    platform().next_result("sse_call", {512, 0});
    EXPECT_EQ(get_sw_card_family(182), 32u);
}

TEST(TarvikASupervisors, AreFiveCards)
{
    for (std::uint32_t card_id = 0; card_id <= 0xffff; ++card_id) {
        const bool expected =
            card_id == 183 || card_id == 282 || card_id == 314 || card_id == 316 || card_id == 318;
        ASSERT_EQ(is_tarvik_a_supervisor(card_id), expected) << card_id;
    }
}

TEST(FlashSelectionBoards, AreThreeCards)
{
    for (std::uint32_t card_id = 0; card_id <= 0xffff; ++card_id)
        ASSERT_EQ(has_flash_selection(card_id), card_id == 314 || card_id == 316 || card_id == 318) << card_id;
}

} // namespace
