// The families that a description can name are those of the daemon's own table.
#include "card_families.h"

#include "card_groups.h"
#include "card_identification.h"
#include "card_table.h"
#include "daemon_test.h"

namespace
{

using CardFamilies = daemon_test;

const std::string IMAGE_FOLDER = "/vesk/bin/";

TEST_F(CardFamilies, AreTheRowsOfTheDaemonInTheirOrder)
{
    ASSERT_EQ(CARD_FAMILIES.size(), max_bios_id_entries);
    for (std::size_t i = 0; i < CARD_FAMILIES.size(); ++i)
        EXPECT_EQ(IMAGE_FOLDER + image_file_of(CARD_FAMILIES[i]), bios_flash_entry_tbl[i].src_path) << i;
}

TEST_F(CardFamilies, TellACardOfWhichTheDaemonSaysTheSame)
{
    for (std::size_t i = 0; i < CARD_FAMILIES.size(); ++i) {
        const card_family &family = CARD_FAMILIES[i];
        platform().hw_change_bit = family.hw_change_bit.value_or(0);
        EXPECT_EQ(get_sw_card_family(family.card_id), bios_flash_entry_tbl[i].sw_card_id) << family.name;
        const owned_card_table table(bios_get_card_id_ent(family.card_id, 0));
        ASSERT_NE(table, nullptr) << family.name;
        ASSERT_EQ(table->count, 1u) << family.name;
        EXPECT_EQ(table->entries()[0].src_path, IMAGE_FOLDER + image_file_of(family)) << family.name;
    }
}

TEST_F(CardFamilies, TellTheHwChangeBitExactlyWhereTheDaemonReadsIt)
{
    for (const card_family &family : CARD_FAMILIES) {
        const std::size_t read_before = platform().calls("sse_call").size();
        (void)get_sw_card_family(family.card_id);
        EXPECT_EQ(platform().calls("sse_call").size() > read_before, family.hw_change_bit.has_value())
            << family.name;
    }
}

// Such a card takes each request that it is asked as one for module 18, which the family's other cards do not.
TEST_F(CardFamilies, AvoidTheOverridingCardIdWhereAFamilyHasAnother)
{
    const card_family *family = find_card_family("x86n-tarvik-a");
    ASSERT_NE(family, nullptr);
    EXPECT_FALSE(is_tarvik_a_supervisor(family->card_id));
}

TEST_F(CardFamilies, AreFoundByTheirWholeNameOnly)
{
    for (const card_family &family : CARD_FAMILIES)
        EXPECT_EQ(find_card_family(family.name), &family);
    for (const char *name : {"", "x86", "x86n-", "X86N", "bios-x86n", "x86n-tarvik-a_cr.bin.gz"})
        EXPECT_EQ(find_card_family(name), nullptr) << name;
}

} // namespace
