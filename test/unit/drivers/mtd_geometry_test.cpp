// The geometry that follows from what the kernel says of an MTD, and which MTDs are not programmed.
#include <gtest/gtest.h>

#include <mtd/mtd-user.h>

#include "mtd_geometry.h"

namespace
{

constexpr std::uint32_t KIB = 1 << 10;

// A serial flash of 8 MiB.
const mtd_description SERIAL = {.type = MTD_NORFLASH,
                                .is_writeable = true,
                                .size_bytes = 8192 * KIB,
                                .erase_bytes = 64 * KIB,
                                .write_bytes = 1};

mtd_description with(void (*change)(mtd_description &))
{
    mtd_description changed = SERIAL;
    change(changed);
    return changed;
}

std::uint32_t page_of(std::uint32_t erase_bytes, std::uint32_t write_bytes = 1)
{
    mtd_description mtd = SERIAL;
    mtd.erase_bytes = erase_bytes;
    mtd.write_bytes = write_bytes;
    std::string problem;
    const auto geometry = mtd_geometry(mtd, problem);
    EXPECT_TRUE(geometry) << problem;
    return geometry ? geometry->page_bytes : 0;
}

std::string problem_of(const mtd_description &mtd)
{
    std::string problem;
    EXPECT_FALSE(mtd_geometry(mtd, problem));
    return problem;
}

} // namespace

TEST(MtdGeometry, IsThatOfThePart)
{
    std::string problem;
    const auto geometry = mtd_geometry(SERIAL, problem);
    ASSERT_TRUE(geometry) << problem;
    EXPECT_EQ(geometry->size_bytes, 8192 * KIB);
    EXPECT_EQ(geometry->sector_bytes, 64 * KIB);
    EXPECT_EQ(geometry->page_bytes, 4 * KIB);
}

TEST(MtdGeometry, HasTwoPagesASectorAtLeast)
{
    EXPECT_EQ(page_of(128 * KIB), 4 * KIB);
    EXPECT_EQ(page_of(8 * KIB), 4 * KIB);
    EXPECT_EQ(page_of(4 * KIB), 2 * KIB);
    EXPECT_EQ(page_of(512), 256U);
    EXPECT_EQ(page_of(2), 1U);
    EXPECT_EQ(page_of(64 * KIB, 16), 4 * KIB);
}

TEST(MtdGeometry, IsOfNorFlashAndRamAlone)
{
    std::string problem;
    EXPECT_TRUE(mtd_geometry(with([](mtd_description &mtd) { mtd.type = MTD_RAM; }), problem)) << problem;
    EXPECT_EQ(problem_of(with([](mtd_description &mtd) { mtd.type = MTD_NANDFLASH; })),
              "it is NAND flash, and only NOR flash and RAM are programmed");
    for (const int type : {MTD_ABSENT, MTD_ROM, MTD_DATAFLASH, MTD_UBIVOLUME, MTD_MLCNANDFLASH, 77}) {
        mtd_description mtd = SERIAL;
        mtd.type = static_cast<std::uint8_t>(type);
        EXPECT_NE(problem_of(mtd), "") << type;
    }
}

TEST(MtdGeometry, DoesNotExistOfSizesThatContradictEachOther)
{
    EXPECT_NE(problem_of(with([](mtd_description &mtd) { mtd.size_bytes = 0; })), "");
    EXPECT_NE(problem_of(with([](mtd_description &mtd) { mtd.size_bytes += 4 * KIB; })), "");
    EXPECT_NE(problem_of(with([](mtd_description &mtd) { mtd.erase_bytes = 0; })), "");
    EXPECT_NE(problem_of(with([](mtd_description &mtd) { mtd.erase_bytes = 1; })), "");
    EXPECT_NE(problem_of(with([](mtd_description &mtd) { mtd.write_bytes = 0; })), "");
    EXPECT_NE(problem_of(with([](mtd_description &mtd) { mtd.write_bytes = 8 * KIB; })), "") << "more than a page";
    EXPECT_NE(problem_of(with([](mtd_description &mtd) { mtd.write_bytes = 48; })), "");
    EXPECT_NE(problem_of(with([](mtd_description &mtd) { mtd.size_bytes = std::uint64_t{FLASH_MAX_BYTES} * 2; })),
              "");
    EXPECT_NE(problem_of(with([](mtd_description &mtd) { mtd.size_bytes += std::uint64_t{1} << 32; })), "");
}

// A part with eight sectors of 8 KiB at its start, in the place of one of 64 KiB.
TEST(MtdGeometry, HasSectorsOfTheLargestWhereOthersAreSmaller)
{
    mtd_description boot_block = SERIAL;
    boot_block.regions = {{.offset = 0, .erase_bytes = 8 * KIB}, {.offset = 64 * KIB, .erase_bytes = 64 * KIB}};
    std::string problem;
    const auto geometry = mtd_geometry(boot_block, problem);
    ASSERT_TRUE(geometry) << problem;
    EXPECT_EQ(geometry->sector_bytes, 64 * KIB);
}

TEST(MtdGeometry, DoesNotExistWhereSmallerSectorsDoNotAddUp)
{
    const auto problem_with = [](std::vector<mtd_region> regions) {
        mtd_description mtd = SERIAL;
        mtd.regions = std::move(regions);
        return problem_of(mtd);
    };
    EXPECT_NE(problem_with({{.offset = 0, .erase_bytes = 8 * KIB}, {.offset = 40 * KIB, .erase_bytes = 64 * KIB}}),
              "");
    EXPECT_NE(problem_with({{.offset = 0, .erase_bytes = 24 * KIB}}), "");
    EXPECT_NE(problem_with({{.offset = 0, .erase_bytes = 128 * KIB}}), "") << "larger than what the kernel erases";
    EXPECT_NE(problem_with({{.offset = 0, .erase_bytes = 0}}), "");
}
