// Programming of the local flashes, row by row.
#include "flash_walk.h"

#include <deque>
#include <regex>

#include "daemon_test.h"
#include "entry_list.h"

namespace
{

constexpr char image[] = "/bootflash/.tmpbios.bin";
constexpr char second_image[] = "/bootflash/.second.bin";

// Operations of a row that answer from the platform's script.
std::int32_t program(std::int32_t handle, std::uint32_t flash_type, const char *path, std::uint32_t own_module,
                     std::uint32_t node, std::uint32_t sap, void *area, std::uint8_t image_type)
{
    const scripted_result result =
        platform().called("program", joined({std::to_string(handle), std::to_string(flash_type), quoted(path),
                                             std::to_string(own_module), hexed(node), std::to_string(sap),
                                             "area use " + std::to_string(platform().progress_area_use(area)),
                                             std::to_string(image_type)}));
    return static_cast<std::int32_t>(result.value);
}

std::int32_t compare_versions(std::int32_t handle, std::uint32_t flash_type, const char *path)
{
    return static_cast<std::int32_t>(
        platform()
            .called("version_compare", joined({std::to_string(handle), std::to_string(flash_type), quoted(path)}))
            .value);
}

class FlashWalk : public daemon_test
{
protected:
    FlashWalk()
    {
        platform().write_file(image, "image");
        platform().write_file(second_image, "image");
    }

    static bios_flash_entry row(const char *path = image, std::uint8_t instance = 0)
    {
        bios_flash_entry entry{};
        entry.flash_type = 11;
        entry.flash_instance = instance;
        entry.tmp_path = path;
        entry.program = program;
        return entry;
    }
    std::int32_t walk(std::initializer_list<bios_flash_entry> rows, std::uint8_t image_type = 0)
    {
        const entry_list list(rows);
        return bios_prog_all_bios_flashes(7, list.table(), 0x201, 93, 1, 9, 5, image_type);
    }
    static lines story()
    {
        lines told = platform().story({"log", "version_compare", "program"});
        for (std::string &line : told)
            line = std::regex_replace(line, std::regex(R"(flashes:\d+:)"), "flashes:N:");
        return told;
    }
    static std::string row_log(int k) { return row_log(k, "0xb"); }
    static std::string row_log(int k, const std::string &flash_type)
    {
        return "log(bios_prog_all_bios_flashes:N: for biosid=" + std::to_string(k) + " " + flash_type + ")";
    }
    const std::string not_compared = "log( Version comparison result 0x0)";
    const std::string programmed = "program(7, 11, \"/bootflash/.tmpbios.bin\", 5, 0x201, 93, area use 0, 0)";
};

TEST_F(FlashWalk, OfNoRowsIsASuccess)
{
    EXPECT_EQ(walk({}), 0);
    EXPECT_EQ(story(), lines{});
}

TEST_F(FlashWalk, ProgramsARowWithoutComparison)
{
    EXPECT_EQ(walk({row()}), 0);
    EXPECT_EQ(story(), (lines{row_log(0), not_compared, programmed, "log( programming result 0x0)"}));
}

TEST_F(FlashWalk, PassesOverRowsOfAnotherInstanceInSilence)
{
    EXPECT_EQ(walk({row(image, 1), row(image, 2)}), 0);
    EXPECT_EQ(story(), lines{});
    EXPECT_EQ(walk({row(image, 0), row(image, 1)}, 1), 0);
    EXPECT_EQ(platform().calls("program"),
              lines{"program(7, 11, \"/bootflash/.tmpbios.bin\", 5, 0x201, 93, area use 0, 1)"});
    EXPECT_EQ(story()[0], row_log(1));
}

TEST_F(FlashWalk, GoesThroughAllRowsWithOneProgressArea)
{
    EXPECT_EQ(walk({row(), row(second_image)}), 0);
    EXPECT_EQ(platform().calls("program"),
              (lines{programmed, "program(7, 11, \"/bootflash/.second.bin\", 5, 0x201, 93, area use 1, 0)"}));
}

TEST_F(FlashWalk, SkipsARowWhoseImageIsMissing)
{
    EXPECT_EQ(walk({row("/bootflash/none.bin"), row()}), 0);
    EXPECT_EQ(story(), (lines{row_log(0),
                              "log(ERROR: SUP BIOS source file (/bootflash/none.bin) not found .. "
                              "skipping)",
                              row_log(1), not_compared, programmed, "log( programming result 0x0)"}));
}

TEST_F(FlashWalk, ClearsAnEarlierResultForAMissingImage)
{
    platform().when("program", [] { std::filesystem::remove(platform().path(image)); });
    platform().next_result("program", {0x40710001, 0});
    EXPECT_EQ(walk({row(), row()}), 0);
    EXPECT_EQ(platform().calls("program").size(), 1u);
    EXPECT_EQ(platform().logs().back(),
              "ERROR: SUP BIOS source file (/bootflash/.tmpbios.bin) not found .. skipping");
}

TEST_F(FlashWalk, ReturnsTheResultOfTheLastRow)
{
    platform().next_result("program", {0, 0});
    platform().next_result("program", {0x40710001, 0});
    EXPECT_EQ(walk({row(), row()}), 0x40710001);
    EXPECT_TRUE(platform().logged(" programming result 0x40710001"));
}

TEST_F(FlashWalk, KeepsTheResultOverRowsOfAnotherInstance)
{
    platform().next_result("program", {0x40710001, 0});
    EXPECT_EQ(walk({row(), row(image, 1)}), 0x40710001);
}

TEST_F(FlashWalk, EndsAtTheFirstFailure)
{
    platform().next_result("program", {0x40710004, 0});
    EXPECT_EQ(walk({row(), row()}), 0x40710004);
    EXPECT_EQ(platform().calls("program").size(), 1u);
    EXPECT_EQ(platform().logs().back(), " programming result 0x40710004");
}

TEST_F(FlashWalk, ProgramsWhatTheComparisonFindsNewer)
{
    bios_flash_entry compared = row();
    compared.version_compare = compare_versions;
    EXPECT_EQ(walk({compared}), 0);
    EXPECT_EQ(story(), (lines{row_log(0), "version_compare(7, 11, \"/bootflash/.tmpbios.bin\")", not_compared,
                              programmed, "log( programming result 0x0)"}));
}

TEST_F(FlashWalk, LeavesAFlashThatNeedsNoProgramming)
{
    bios_flash_entry compared = row();
    compared.version_compare = compare_versions;
    platform().next_result("version_compare", {0x40710001, 0});
    EXPECT_EQ(walk({compared, row(image, 1)}), 0x40710001);
    EXPECT_EQ(story(), (lines{row_log(0), "version_compare(7, 11, \"/bootflash/.tmpbios.bin\")",
                              "log( Version comparison result 0x40710001)"}));
}

TEST_F(FlashWalk, GoesOnBehindAFlashThatNeedsNoProgramming)
{
    bios_flash_entry compared = row();
    compared.version_compare = compare_versions;
    platform().next_result("version_compare", {0x40710001, 0});
    EXPECT_EQ(walk({compared, row()}), 0);
    EXPECT_EQ(platform().calls("program").size(), 1u);
}

TEST_F(FlashWalk, EndsAtAFailedComparison)
{
    bios_flash_entry compared = row();
    compared.version_compare = compare_versions;
    platform().next_result("version_compare", {0x4071000f, 0});
    EXPECT_EQ(walk({compared, row()}), 0x4071000f);
    EXPECT_EQ(platform().calls("program"), lines{});
    EXPECT_EQ(platform().logs().back(), " Version comparison result 0x4071000f");
}

TEST_F(FlashWalk, CutsALongPath)
{
    const std::string path = "/bootflash/" + std::string(600, 'x');
    EXPECT_EQ(walk({row(path.c_str())}), 0);
    EXPECT_THAT(platform().calls("stat"), testing::Contains("stat(\"" + path.substr(0, 255) + "\")"));
}

} // namespace
