// Another module's programming fails, for each reason that can be brought about: the active supervisor reports the
// very code that the module has found.
#include <filesystem>
#include <functional>
#include <sys/stat.h>

#include "bios_flash.h"
#include "bios_results.h"
#include "chassis_dir.h"
#include "chassis_fixture.h"
#include "held_locks.h"
#include "nor_file.h"

namespace
{

namespace files = std::filesystem;

constexpr unsigned ACTIVE = 1;
constexpr unsigned TARGET = 2;
constexpr unsigned PLAIN_CARD = 90;
constexpr unsigned CHIPSET_CARD = 106; // tries again without a pause
constexpr const char *IMAGE_PLACE = "/bootflash/.tmpbios.bin";

class ForwardedFailures : public chassis_test
{
protected:
    void insert_supervisors(unsigned card_id)
    {
        insert({.slot = ACTIVE, .card_id = card_id});
        insert({.slot = TARGET, .role = "standby", .card_id = card_id, .in_tree = nullptr});
    }
    // A card that gets no image from the supervisor: it programs what lies there.
    void insert_line_card()
    {
        insert({.slot = ACTIVE});
        insert({.slot = TARGET, .role = "none", .in_tree = nullptr, .kind = "linecard"});
    }
    void expect_reported(const programming &seen, std::uint32_t code) const
    {
        EXPECT_EQ(seen.answer, 0U) << seen;
        EXPECT_EQ(seen.result, std::optional(code)) << seen;
        EXPECT_EQ(seen.module, std::optional<std::uint32_t>(TARGET));
        EXPECT_FALSE(seen.verified()) << seen;
        char text[64];
        (void)std::snprintf(text, sizeof text, "MTS_OPC_BIOS_PROGRAMMING_DONE status=%x", code);
        EXPECT_EQ(lines_with(ACTIVE, text), 1U) << text;
        EXPECT_EQ(locks_held(), held_locks());
        EXPECT_EQ(flash_of(ACTIVE) == old_image().bytes, true);
        if (code != BIOS_OK) {
            EXPECT_FALSE(card_has(ACTIVE, "/mnt/pss/bios_run_ver")) << "the record outlived the failure";
            EXPECT_FALSE(card_has(TARGET, "/mnt/pss/bios_run_ver")) << "the record outlived the failure";
        }
        expect_tidy(ACTIVE, {".tmpbios.bin.gz"});
    }
    void expect_target_untouched() const
    {
        EXPECT_EQ(flash_of(TARGET) == old_image().bytes, true);
        EXPECT_FALSE(is_marked(TARGET));
    }
    void expect_target_marked() const
    {
        EXPECT_TRUE(is_marked(TARGET));
        std::string version;
        EXPECT_EQ(flash_version(TARGET, version), -61) << version;
    }
};

} // namespace

TEST_F(ForwardedFailures, EraseThatFails)
{
    insert_supervisors(CHIPSET_CARD);
    up();
    set_faults(TARGET, "fail erase always");
    expect_reported(program(TARGET), BIOS_FLASH_ERR_ERASE);
    expect_target_marked();
    EXPECT_EQ(lines_with(TARGET, "Flash erase failed, retrying...."), 5U);

    set_faults(TARGET, "");
    expect_programmed(program(TARGET), TARGET, new_image());
}

TEST_F(ForwardedFailures, WriteThatFails)
{
    insert_supervisors(CHIPSET_CARD);
    up();
    set_faults(TARGET, "fail program always");
    expect_reported(program(TARGET), BIOS_FLASH_ERR_PROGRAM);
    expect_target_marked();
    EXPECT_EQ(lines_with(TARGET, "Flash program failed, retrying...."), 5U);
}

TEST_F(ForwardedFailures, ImageThatDoesNotFit)
{
    insert({.slot = ACTIVE, .in_tree = &image("2.5", 2 * SMALL_FLASH_KIB)});
    insert({.slot = TARGET, .role = "standby", .in_tree = nullptr});
    up();
    expect_reported(program(TARGET), BIOS_FLASH_ERR_IMAGE_SIZE);
    expect_target_untouched();
}

TEST_F(ForwardedFailures, FlashThatCannotBeRead)
{
    insert_supervisors(PLAIN_CARD);
    up();
    set_faults(TARGET, "fail read always");
    expect_reported(program(TARGET), BIOS_FLASH_ERR_NO_FLASH);
    expect_target_untouched();
}

TEST_F(ForwardedFailures, FlashThatIsBeingProgrammed)
{
    insert_supervisors(PLAIN_CARD);
    up();
    const auto other = nor_file::open(TARGET, BIOS_FLASH_PRIMARY, flash_access::write);
    ASSERT_NE(other, nullptr);
    expect_reported(program(TARGET), BIOS_FLASH_ERR_IN_USE);
    expect_target_untouched();
}

TEST_F(ForwardedFailures, ImageThatCannotBeOpened)
{
    insert_line_card();
    up();
    ASSERT_EQ(::mknod(card_file(TARGET, IMAGE_PLACE).c_str(), S_IFSOCK | 0600, 0), 0);
    expect_reported(program(TARGET), BIOS_FLASH_ERR_IMAGE_READ);
    expect_target_untouched();
    expect_tidy(TARGET);
}

TEST_F(ForwardedFailures, ImageThatCannotBeRemovedAfterwards)
{
    insert_line_card();
    up();
    files::create_directory(card_file(TARGET, IMAGE_PLACE));
    expect_reported(program(TARGET), BIOS_ERR_IMAGE_NOT_REMOVED);
    expect_target_untouched();
    EXPECT_EQ(lines_with(TARGET, " programming result 0x40710004"), 1U);
}

// The card is replaced by an unknown one while the supervisor unpacks.
TEST_F(ForwardedFailures, CardThatIsNotKnown)
{
    constexpr unsigned UNKNOWN_CARD = 1;
    insert_supervisors(PLAIN_CARD);
    up();
    keep_pauses(ACTIVE);
    requester asking;
    programming seen = asking.start(TARGET);
    ASSERT_TRUE(wait_until([&] { return lines_with(ACTIVE, ": Module=1 CardId=90") == 1; }));
    ASSERT_TRUE(chassis_write_value(chassis_inventory_path(TARGET, "card_id"), UNKNOWN_CARD));
    asking.await_end(seen);
    expect_reported(seen, BIOS_ERR_NO_ENTRIES);
    expect_target_untouched();
}

// A missing image is no failure; only that nothing was verified tells that nothing was programmed.
TEST_F(ForwardedFailures, NoImageOnALineCard)
{
    insert_line_card();
    up();
    const programming seen = program(TARGET);
    expect_reported(seen, BIOS_OK);
    EXPECT_TRUE(seen.progress.empty()) << seen;
    EXPECT_EQ(lines_with(TARGET, "ERROR: SUP BIOS source file (/bootflash/.tmpbios.bin) not found .. skipping"),
              1U);
    expect_target_untouched();
    expect_tidy(TARGET);

    write_file(card_file(TARGET, IMAGE_PLACE), new_image().bytes);
    expect_programmed(program(TARGET), TARGET, new_image());
}

// Nothing reaches the standby at first; the clean-up puts an empty file there, which is then found for an image.
TEST_F(ForwardedFailures, FullBootFlashOfTheActiveSupervisor)
{
    insert({.slot = ACTIVE, .bootflash_mib = 1});
    insert({.slot = TARGET, .role = "standby", .in_tree = nullptr});
    if (!up_with_disks())
        GTEST_SKIP() << "mounting is not allowed here";
    const std::string filler = on_bootflash(ACTIVE, "filler");
    write_file(filler, std::string((1024 - 64) * 1024, 'x')); // the archive does not fit into the rest

    const programming seen = program(TARGET);
    expect_reported(seen, BIOS_OK);
    EXPECT_TRUE(seen.progress.empty()) << seen;
    EXPECT_EQ(lines_with(TARGET, "not found .. skipping"), 1U);
    expect_target_untouched();
    EXPECT_EQ(file_content(card_file(TARGET, IMAGE_PLACE)), "");

    expect_reported(program(TARGET), BIOS_FLASH_ERR_IMAGE_SIZE);
    expect_target_untouched();
}
