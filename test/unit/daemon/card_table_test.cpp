// A card's own copy of its rows.
#include "card_table.h"

#include "daemon_test.h"

namespace
{

using owned_table = owned_card_table;

class CardTable : public daemon_test
{
protected:
    static owned_table table_of(std::uint32_t card_id) { return owned_table(bios_get_card_id_ent(card_id, 0)); }

    // Image of the one row that a card's table has to hold.
    static std::string image_of(std::uint32_t card_id)
    {
        const owned_table table = table_of(card_id);
        if (table == nullptr || table->count != 1)
            return "not one row";
        return table->entries()[0].src_path;
    }
};

const std::string block_bytes = std::to_string(sizeof(bios_card_table) + sizeof(bios_flash_entry));

TEST_F(CardTable, HoldsAWholeCopyOfTheRow)
{
    const owned_table table = table_of(97);
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(table->count, 1u);
    EXPECT_EQ(std::memcmp(table->entries(), &bios_flash_entry_tbl[0], sizeof(bios_flash_entry)), 0);
}

TEST_F(CardTable, HoldsOneRowOfTheCardsFamily)
{
    EXPECT_EQ(image_of(90), "/vesk/bin/bios-x86n.bin.gz");
    EXPECT_EQ(image_of(108), "/vesk/bin/bios-x86n-o2.bin.gz");
    EXPECT_EQ(image_of(109), "/vesk/bin/bios-x86n-o2-mod.bin.gz");
    EXPECT_EQ(image_of(236), "/vesk/bin/bios-x86n-o2-qel.bin.gz");
    EXPECT_EQ(image_of(183), "/vesk/bin/bios-x86n-tarvik-a.bin.gz");
    EXPECT_EQ(image_of(283), "/vesk/bin/bios-x86n-tarvik-a.bin.gz");
    EXPECT_EQ(image_of(282), "/vesk/bin/bios-x86n-tarvik-a_cr.bin.gz");
    EXPECT_EQ(image_of(222), "/vesk/bin/bios-x86n-tarvik-b.bin.gz");
    EXPECT_EQ(image_of(223), "/vesk/bin/bios-x86n-tarvik-b.bin.gz");
    EXPECT_EQ(image_of(271), "/vesk/bin/bios-x86n-tarvik-d.bin.gz");
    EXPECT_EQ(image_of(272), "/vesk/bin/bios-x86n-tarvik-e.bin.gz");
    EXPECT_EQ(image_of(314), "/vesk/bin/bios-x86n-tarvik-f.bin.gz");
    EXPECT_EQ(image_of(316), "/vesk/bin/bios-x86n-tarvik-g.bin.gz");
    EXPECT_EQ(image_of(318), "/vesk/bin/bios-x86n-tarvik-h.bin.gz");
}

TEST_F(CardTable, OfCard182HoldsTheRowOfItsBoardVariant)
{
    platform().hw_change_bit = 2;
    EXPECT_EQ(image_of(182), "/vesk/bin/bios-x86n-tarvik-c.bin.gz");
    platform().hw_change_bit = 3;
    EXPECT_EQ(image_of(182), "/vesk/bin/bios-x86n-tarvik-c-pfcr-sandyb.bin.gz");
    for (const std::uint32_t newest : {4u, 0xffffffffu}) {
        platform().hw_change_bit = newest;
        EXPECT_EQ(image_of(182), "/vesk/bin/bios-x86n-tarvik-c-pfcr-ivb.bin.gz");
    }
    platform().hw_change_bit = 0;
    platform().next_result("sse_call", {-1, EIO});
    EXPECT_EQ(image_of(182), "/vesk/bin/bios-x86n-tarvik-c-pfcr-ivb.bin.gz");
}

TEST_F(CardTable, IsNullForACardWithoutFamily)
{
    EXPECT_EQ(table_of(0), nullptr);
    EXPECT_EQ(platform().logs(), (lines{"Card id is = 0 15\\n", "Card tbl family is 9999 \\n"}));
    EXPECT_EQ(table_of(9999), nullptr);
    EXPECT_EQ(platform().logs().back(), "Card tbl family is 9999 \\n");
}

TEST_F(CardTable, IsNullForEveryNumberThatIsNoCard)
{
    for (const std::uint32_t card_id : {1u, 17u, 19u, 37u, 319u, 0xffffu})
        EXPECT_EQ(table_of(card_id), nullptr) << card_id;
}

TEST_F(CardTable, LogsBothPassesOverAllRows)
{
    const owned_table table = table_of(282);
    lines expected{"Card id is = 282 15\\n", "Card tbl family is 34 \\n"};
    for (std::uint32_t i = 0; i < 15; ++i) {
        expected.push_back("Index " + std::to_string(i) + " entries....\\n");
        expected.push_back("sw_id_str = " + std::to_string(bios_flash_entry_tbl[i].sw_card_id) + "\\n");
        expected.emplace_back("sw_src_id = 19\\n");
        expected.push_back("pathname = " + std::string(bios_flash_entry_tbl[i].src_path) + "\\n");
    }
    expected.emplace_back("Card id is 34 matching entries are 1\\n");
    expected.push_back("Total mem size is = " + block_bytes + " bytes\\n");
    for (std::uint32_t i = 0; i < 15; ++i) {
        expected.push_back("Table entry is " + std::to_string(bios_flash_entry_tbl[i].sw_card_id) + " index " +
                           std::to_string(i) + "\\n");
        if (i == 5)
            expected.emplace_back("Copying 5 into the card_tbl at 0\\n");
    }
    expected.push_back("Total mem size is = " + block_bytes + " bytes\\n");
    EXPECT_EQ(platform().logs(), expected);
}

TEST_F(CardTable, IsNullWithoutAMessageWhenMemoryRunsOut)
{
    platform().fail_allocation_of(sizeof(bios_card_table) + sizeof(bios_flash_entry));
    EXPECT_EQ(table_of(282), nullptr);
    EXPECT_EQ(platform().logs().back(), "Card id is 34 matching entries are 1\\n");
}

#ifdef __i386__
TEST_F(CardTable, IsABlockOf184BytesOnTheTarget)
{
    EXPECT_NE(table_of(282), nullptr);
    EXPECT_TRUE(platform().logged("Total mem size is = 184 bytes\\n"));
}
#endif

} // namespace
