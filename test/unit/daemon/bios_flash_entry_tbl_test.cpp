// Every row of the constant table.
#include <array>

#include "card_table.h"
#include "daemon_test.h"
#include "flash_programming.h"
#include "image_extraction.h"
#include "version_accessors.h"

namespace
{

struct expected_row {
    std::uint16_t sw_card_id;
    const char *src_path;
};

constexpr std::array<expected_row, 15> expected_rows = {{
    {17, "/vesk/bin/bios-x86n.bin.gz"},
    {19, "/vesk/bin/bios-x86n-o2.bin.gz"},
    {21, "/vesk/bin/bios-x86n-o2-mod.bin.gz"},
    {23, "/vesk/bin/bios-x86n-o2-qel.bin.gz"},
    {26, "/vesk/bin/bios-x86n-tarvik-a.bin.gz"},
    {34, "/vesk/bin/bios-x86n-tarvik-a_cr.bin.gz"},
    {28, "/vesk/bin/bios-x86n-tarvik-b.bin.gz"},
    {29, "/vesk/bin/bios-x86n-tarvik-c.bin.gz"},
    {32, "/vesk/bin/bios-x86n-tarvik-c-pfcr-sandyb.bin.gz"},
    {33, "/vesk/bin/bios-x86n-tarvik-c-pfcr-ivb.bin.gz"},
    {30, "/vesk/bin/bios-x86n-tarvik-d.bin.gz"},
    {31, "/vesk/bin/bios-x86n-tarvik-e.bin.gz"},
    {35, "/vesk/bin/bios-x86n-tarvik-f.bin.gz"},
    {36, "/vesk/bin/bios-x86n-tarvik-g.bin.gz"},
    {37, "/vesk/bin/bios-x86n-tarvik-h.bin.gz"},
}};

const bios_flash_entry &row(std::size_t index)
{
    return bios_flash_entry_tbl[index];
}

TEST(BiosFlashEntryTbl, Has15Rows)
{
    ASSERT_EQ(max_bios_id_entries, 15u);
}

TEST(BiosFlashEntryTbl, HasTheFamiliesAndImagesInOrder)
{
    for (std::size_t i = 0; i < expected_rows.size(); ++i) {
        EXPECT_EQ(row(i).sw_card_id, expected_rows[i].sw_card_id) << "row " << i;
        EXPECT_STREQ(row(i).src_path, expected_rows[i].src_path) << "row " << i;
    }
}

TEST(BiosFlashEntryTbl, HasTheSameValuesInEveryRow)
{
    for (std::size_t i = 0; i < expected_rows.size(); ++i) {
        SCOPED_TRACE("row " + std::to_string(i));
        EXPECT_STREQ(row(i).sw_id_str, "swid-bios");
        EXPECT_EQ(row(i).flash_type, 11u);
        EXPECT_EQ(row(i).sw_src_id, 19u);
        EXPECT_EQ(row(i).flash_instance, 0);
        EXPECT_STREQ(row(i).tmp_path, "/bootflash/.tmpbios.bin");
        EXPECT_EQ(row(i).version_compare, nullptr);
        EXPECT_EQ(row(i).extract, &extract_bios_image);
        EXPECT_EQ(row(i).cleanup, &cleanup_temp_files);
    }
}

TEST(BiosFlashEntryTbl, ReadsAndProgramsThePlainRowThroughThePlainFunctions)
{
    EXPECT_EQ(row(0).get_flash_version, &std_get_flash_version_func);
    EXPECT_EQ(row(0).program, &std_bios_program);
    EXPECT_EQ(row(0).image_src_version, &std_image_src_version_func);
    EXPECT_EQ(row(0).get_src_version, &std_get_src_version_func);
}

TEST(BiosFlashEntryTbl, ReadsAllOtherImagesThroughTheIbexpeakReaders)
{
    for (std::size_t i = 1; i < expected_rows.size(); ++i) {
        EXPECT_EQ(row(i).image_src_version, &std_image_ibexpeak_src_version_func) << "row " << i;
        EXPECT_EQ(row(i).get_src_version, &std_get_ibexpeak_src_version_func) << "row " << i;
    }
}

TEST(BiosFlashEntryTbl, ReadsAndProgramsEachIbexpeakRowThroughItsFlashLayout)
{
    for (const std::size_t i : {1u, 2u}) {
        EXPECT_EQ(row(i).get_flash_version, &std_get_ibexpeak_flash_version_func) << "row " << i;
        EXPECT_EQ(row(i).program, &std_ibexpeak_bios_program) << "row " << i;
    }
    EXPECT_EQ(row(3).get_flash_version, &std_get_ibexpeak_qel_flash_version_func);
    EXPECT_EQ(row(3).program, &std_ibexpeak_qel_bios_program);
    for (std::size_t i = 4; i < expected_rows.size(); ++i) {
        EXPECT_EQ(row(i).get_flash_version, &std_get_ibexpeak_tarvik_a_flash_version_func) << "row " << i;
        EXPECT_EQ(row(i).program, &std_ibexpeak_tarvik_a_bios_program) << "row " << i;
    }
}

} // namespace
