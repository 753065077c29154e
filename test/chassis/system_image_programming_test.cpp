// A supervisor programs its own flash from the system image that a request names.
#include <filesystem>

#include "bios_results.h"
#include "chassis_fixture.h"

namespace
{

class SystemImageProgramming : public chassis_test
{
};

} // namespace

TEST_F(SystemImageProgramming, TakesTheImageOutOfTheNamedFile)
{
    insert({.slot = 1});
    up();
    const test_image &carried = image("3.0");
    make_system_image(on_bootflash(1, "system.img"), 90, carried);

    const programming seen = program(1, {.uri = "bootflash:system.img"});

    expect_programmed(seen, 1, carried);
    expect_tidy(1);
    EXPECT_TRUE(card_has(1, "/bootflash/system.img"));
    EXPECT_EQ(
        lines_with(1, "performing /vesk/sbin/veskadd -x /bootflash/system.img . /vesk/plugin_img/core_plugin"), 1U);
    expect_next_succeeds();
}

TEST_F(SystemImageProgramming, IsRefusedWhenTheUriNamesNoFileThatCanBeRead)
{
    insert({.slot = 1});
    up();
    std::filesystem::create_directory(on_bootflash(1, "folder"));
    for (const char *uri : {"bootflash:missing.img", "http://10.0.0.1/system.img", "bootflash:../etc/passwd", "",
                            "bootflash:folder", "/bootflash/system.img"}) {
        const programming seen = program(1, {.uri = uri});
        EXPECT_EQ(seen.answer, BIOS_ERR_URI) << uri << ": " << seen;
        EXPECT_EQ(flash_of(1) == old_image().bytes, true) << uri;
        expect_tidy(1);
    }
    expect_next_succeeds();
}

// A child that was killed leaves its archives on the boot flash; they are not the image that is asked for.
TEST_F(SystemImageProgramming, TakesNothingThatAnEarlierRequestLeft)
{
    insert({.slot = 1});
    up();
    make_image_tree(card_file(1, "/bootflash"), 90, image("9.9"));
    std::filesystem::copy_file(card_file(1, "/bootflash/vesk/bin/bios-x86n.bin.gz"),
                               card_file(1, "/bootflash/.tmpbios.bin.gz"));
    write_file(card_file(1, "/bootflash/.tmpbios.bin"), image("9.9").bytes);
    make_system_image(on_bootflash(1, "other.img"), 106, image("3.0")); // holds none for the card

    const programming seen = program(1, {.uri = "bootflash:other.img"});

    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(0)) << seen;
    EXPECT_TRUE(seen.progress.empty()) << seen;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    expect_tidy(1);
    expect_next_succeeds();
}

TEST_F(SystemImageProgramming, LeavesTheFlashAloneWhenTheFileHasNoBiosForTheCard)
{
    insert({.slot = 1});
    up();
    make_system_image(on_bootflash(1, "other.img"), 106, image("3.0"));
    const programming seen = program(1, {.uri = "bootflash:other.img"});
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(0)) << seen;
    EXPECT_TRUE(seen.progress.empty()) << seen;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    expect_tidy(1);
    expect_next_succeeds();
}
