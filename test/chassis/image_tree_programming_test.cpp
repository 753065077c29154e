// A supervisor programs its own flash from the image tree of its system.
#include <filesystem>

#include "bios_flash.h"
#include "chassis_fixture.h"

namespace
{

constexpr const char *RUNNING_VERSION_RECORD = "/mnt/pss/bios_run_ver";
constexpr const char *TREE_IMAGE = "/vesk/bin/bios-x86n.bin.gz";
constexpr std::size_t RECORD_BYTES = 128;

class ImageTreeProgramming : public chassis_test
{
};

std::string record_of(const std::string &version)
{
    std::string record = version;
    record.resize(RECORD_BYTES, '\0');
    return record;
}

} // namespace

TEST_F(ImageTreeProgramming, MakesTheFlashEqualToTheImage)
{
    insert({.slot = 1});
    up();
    std::string version;
    ASSERT_EQ(flash_version(1, version), 0);
    ASSERT_EQ(version, old_image().version);
    ASSERT_FALSE(card_has(1, RUNNING_VERSION_RECORD));
    const pid_t daemon = daemon_pid(1);

    const programming seen = program(1);

    expect_programmed(seen, 1, new_image());
    EXPECT_EQ(seen.module, std::optional<std::uint32_t>(1));
    ASSERT_FALSE(seen.progress.empty());
    EXPECT_EQ(seen.progress.front().percent, 0U);
    EXPECT_EQ(seen.progress.back().attempt, 1U);
    EXPECT_EQ(lines_with(1, "NOTE !! You need to reboot the card for the BIOS to take effect !!"), 1U);
    EXPECT_EQ(lines_with(1, "Un-mark in-progress exit=0 retcode=0"), 1U);
    EXPECT_EQ(file_content(card_file(1, "/bootflash/bios_daemon.dbg")).substr(0, 20), "dumping stack trace\n");
    EXPECT_EQ(daemon_pid(1), daemon);
    expect_tidy(1);

    // The old BIOS runs until the card is rebooted; the record tells so, and does not outlive the reboot.
    EXPECT_EQ(file_content(card_file(1, RUNNING_VERSION_RECORD)), record_of(old_image().version));
    ASSERT_EQ(chassis({"restart", "1"}).exit_code, 0);
    EXPECT_FALSE(card_has(1, RUNNING_VERSION_RECORD));
    EXPECT_EQ(lines_with(1, "Deleting file  /mnt/pss/bios_run_ver"), 1U);
    EXPECT_NE(daemon_pid(1), daemon);
}

TEST_F(ImageTreeProgramming, KeepsTheRunningVersionOverAnUpgradeRestart)
{
    insert({.slot = 1});
    up();
    expect_programmed(program(1), 1, new_image());
    ASSERT_EQ(chassis({"restart", "--upgrade", "1"}).exit_code, 0);
    EXPECT_EQ(file_content(card_file(1, RUNNING_VERSION_RECORD)), record_of(old_image().version));
    EXPECT_EQ(lines_with(1, "running version read from file = " + old_image().version), 1U);

    // A second programming writes the record anew, and it still is the BIOS that was booted.
    expect_next_succeeds();
    EXPECT_EQ(file_content(card_file(1, RUNNING_VERSION_RECORD)), record_of(old_image().version));
}

TEST_F(ImageTreeProgramming, LeavesAnEqualFlashAlone)
{
    insert({.slot = 1, .in_flash = &new_image()});
    up();
    set_faults(1, "fail erase always\nfail program always\nfail marker always");
    expect_programmed(program(1), 1, new_image());
    expect_tidy(1);
}

TEST_F(ImageTreeProgramming, ProgramsAnErasedFlash)
{
    insert({.slot = 1, .in_flash = nullptr});
    up();
    std::string version;
    ASSERT_EQ(flash_version(1, version), -61);
    expect_programmed(program(1), 1, new_image());
    expect_tidy(1);
}

TEST_F(ImageTreeProgramming, EndsWithoutProofWhenTheTreeHasNoImage)
{
    insert({.slot = 1, .in_tree = nullptr});
    up();
    const programming seen = program(1);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(0)) << seen;
    EXPECT_TRUE(seen.progress.empty()) << seen;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    EXPECT_EQ(lines_with(1, "ERROR: SUP BIOS source file (/bootflash/.tmpbios.bin) not found .. skipping"), 1U);
    expect_tidy(1);

    make_image_tree(slot_file(1, "root"), 90, new_image());
    expect_next_succeeds();
}

// Nothing is left of what cannot be unpacked.
TEST_F(ImageTreeProgramming, EndsWithoutProofWhenTheArchiveIsCutShort)
{
    insert({.slot = 1});
    up();
    const std::string whole = file_content(card_file(1, TREE_IMAGE));
    write_file(card_file(1, TREE_IMAGE), whole.substr(0, whole.size() / 2));
    const programming seen = program(1);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(0)) << seen;
    EXPECT_TRUE(seen.progress.empty()) << seen;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    expect_tidy(1);

    write_file(card_file(1, TREE_IMAGE), whole);
    expect_next_succeeds();
}

TEST_F(ImageTreeProgramming, EndsWithoutProofWhenTheArchiveIsNone)
{
    insert({.slot = 1});
    up();
    const std::string whole = file_content(card_file(1, TREE_IMAGE));
    write_file(card_file(1, TREE_IMAGE), "no gzip at all");
    const programming seen = program(1);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(0)) << seen;
    EXPECT_TRUE(seen.progress.empty()) << seen;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    expect_tidy(1);

    write_file(card_file(1, TREE_IMAGE), whole);
    expect_next_succeeds();
}

TEST_F(ImageTreeProgramming, RefusesAnImageLargerThanTheFlash)
{
    insert({.slot = 1, .in_tree = &image("2.5", 2 * SMALL_FLASH_KIB)});
    up();
    const programming seen = program(1);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_FLASH_ERR_IMAGE_SIZE)) << seen;
    EXPECT_FALSE(seen.verified()) << seen;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    EXPECT_FALSE(is_marked(1));
    EXPECT_FALSE(card_has(1, RUNNING_VERSION_RECORD)) << "the record outlived the failure";
    EXPECT_EQ(lines_with(1, "ERROR: could not program flash"), 0U) << "the flash is as it was";
    expect_tidy(1);

    make_image_tree(slot_file(1, "root"), 90, new_image());
    expect_next_succeeds();
}

// 300 MiB of zeros are 300 KiB: the boot flash takes neither them nor the test's time.
TEST_F(ImageTreeProgramming, StopsUnpackingAtTheFlashsSize)
{
    insert({.slot = 1});
    up();
    const std::string tree_image = card_file(1, TREE_IMAGE);
    ASSERT_EQ(run_program({"sh", "-c", "head -c 300000000 /dev/zero | gzip >'" + tree_image + "'"}).exit_code, 0);
    const programming seen = program(1);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_FLASH_ERR_IMAGE_SIZE)) << seen;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    EXPECT_EQ(lines_with(1, ".tmpbios.bin: the image is larger than the flash (262144 bytes)"), 1U);
    expect_tidy(1);

    make_image_tree(slot_file(1, "root"), 90, new_image());
    expect_next_succeeds();
}

TEST_F(ImageTreeProgramming, EndsWithoutProofForAFlashInstanceThatNoRowHas)
{
    insert({.slot = 1});
    up();
    const programming seen = program(1, {.type = 1});
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(0)) << seen;
    EXPECT_TRUE(seen.progress.empty()) << seen;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    expect_tidy(1);
    expect_next_succeeds();
}

TEST_F(ImageTreeProgramming, EndsWithoutProofOnAFullBootFlash)
{
    insert({.slot = 1, .bootflash_mib = 1});
    if (!up_with_disks())
        GTEST_SKIP() << "mounting is not allowed here";
    // All but 64 KiB, which the archive of 256 KiB does not fit into.
    const std::string filler = on_bootflash(1, "filler");
    write_file(filler, std::string((1024 - 64) * 1024, 'x'));

    const programming seen = program(1);

    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(0)) << seen;
    EXPECT_TRUE(seen.progress.empty()) << seen;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    expect_tidy(1);
    std::filesystem::remove(filler);
    expect_next_succeeds();
}
