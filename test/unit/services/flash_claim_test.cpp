// What a programming claims before it changes a flash: only what was ordered is written, or what the card lets any
// client write.
#include <gtest/gtest.h>

#include "bios_flash.h"
#include "bios_refusals.h"
#include "bios_results.h"
#include "flash_fixture.h"
#include "flash_order.h"

namespace
{

constexpr std::uint32_t SELECTOR = 0x30;
constexpr std::int32_t NO_HANDLE = -1;

class FlashClaim : public chassis_flash_fixture
{
protected:
    void SetUp() override
    {
        chassis_flash_fixture::SetUp();
        create_flash(0, SMALL_FLASH, before);
    }
    std::int32_t program(const std::string &path, std::uint32_t attempt = 1)
    {
        return program_bios_flash(NO_HANDLE, 0, 0, TEST_SLOT, path.c_str(), attempt, &area, 0);
    }
    std::int32_t program_erased(const std::string &path, std::uint32_t attempt = 1)
    {
        return ibexpeak_program_bios_command_ex(path.c_str(), SELECTOR, NO_HANDLE, 0, 0, TEST_SLOT, attempt, &area);
    }
    static void give_order(const flash_bytes &image, std::uint32_t forced = 0,
                           flash_order_state state = flash_order_state::ordered)
    {
        sha256 sum;
        sum.add(image.data(), image.size());
        flash_order order;
        order.id = 5;
        order.state = state;
        order.sha256 = sum.digest();
        order.size_bytes = image.size();
        order.forced = forced;
        order.renewed_s = flash_order_clock_s();
        order.user = "ann";
        const flash_orders_lock lock(TEST_SLOT);
        ASSERT_TRUE(flash_order_write(TEST_SLOT, 0, order));
    }
    static flash_order order() { return flash_order_read(TEST_SLOT, 0).value_or(flash_order()); }
    void expect_untouched() const
    {
        EXPECT_EQ(flash_contents(), before);
        EXPECT_FALSE(is_marked());
    }
    static bool has_own_name(const std::string &folder)
    {
        for (const auto &entry : std::filesystem::directory_iterator(folder)) {
            if (entry.path().filename().string().starts_with(".bios_order"))
                return true;
        }
        return false;
    }

    const flash_bytes before = image_with_version(SMALL_FLASH.size_bytes, 3, 5);
    const flash_bytes newer = image_with_version(SMALL_FLASH.size_bytes, 3, 6);
    const flash_bytes older = image_with_version(SMALL_FLASH.size_bytes, 3, 4);
    bios_flash_progress_area_t area = {};
};

} // namespace

TEST_F(FlashClaim, WritesWhatWasOrderedAndRecordsIt)
{
    give_order(newer);
    EXPECT_EQ(program(file_of("image", newer)), 0);
    EXPECT_EQ(flash_contents(), newer);
    EXPECT_EQ(order().state, flash_order_state::verified);
    EXPECT_EQ(order().id, 5U);
    EXPECT_EQ(order().user, "ann");
    EXPECT_EQ(order().old_version, "v3.5.0(09/17/12)");
    EXPECT_EQ(order().result, 0U);
    EXPECT_EQ(order().writer, static_cast<std::uint32_t>(::getpid()));
    EXPECT_FALSE(has_own_name(dir));
}

TEST_F(FlashClaim, RefusesAnImageThatWasNotOrderedAndLeavesTheOrder)
{
    give_order(newer);
    EXPECT_EQ(program(file_of("image", image_with_version(SMALL_FLASH.size_bytes, 3, 6))),
              bios_signed(BIOS_REFUSED_OTHER_IMAGE));
    expect_untouched();
    EXPECT_EQ(order().state, flash_order_state::ordered);
    EXPECT_EQ(program(file_of("image", newer)), 0);
    EXPECT_EQ(order().state, flash_order_state::verified);
}

TEST_F(FlashClaim, RefusesAnOlderImageUnlessTheOrderForcesIt)
{
    give_order(older);
    const std::string path = file_of("image", older);
    EXPECT_EQ(program(path), bios_signed(BIOS_REFUSED_OLDER));
    expect_untouched();
    EXPECT_EQ(order().state, flash_order_state::failed);
    EXPECT_EQ(order().result, BIOS_REFUSED_OLDER);
    give_order(older, BIOS_FORCE_OLDER);
    EXPECT_EQ(program(path), 0);
    EXPECT_EQ(flash_contents(), older);
}

TEST_F(FlashClaim, OfAClientWithoutAnOrderIsJudgedLessStrictlyAndRecorded)
{
    EXPECT_EQ(program(file_of("image", older)), 0);
    EXPECT_EQ(order().state, flash_order_state::verified);
    EXPECT_EQ(order().user, "");
    EXPECT_EQ(order().version, "v3.4.0(09/17/12)");
    sha256 sum;
    sum.add(older.data(), older.size());
    EXPECT_EQ(order().sha256, sum.digest());
    EXPECT_EQ(program(file_of("image", random_bytes(SMALL_FLASH.size_bytes))),
              bios_signed(BIOS_REFUSED_NO_VERSION));
    EXPECT_EQ(flash_contents(), older);
}

TEST_F(FlashClaim, RefusesWhatWasCancelledAsLongAsItIsRenewed)
{
    give_order(newer, 0, flash_order_state::cancelled);
    EXPECT_EQ(program(file_of("image", newer)), bios_signed(BIOS_REFUSED_CANCELLED));
    expect_untouched();
    EXPECT_EQ(order().state, flash_order_state::cancelled);
}

TEST_F(FlashClaim, RefusesWhileAnotherProcessHasTheOrder)
{
    give_order(newer, 0, flash_order_state::writing);
    const unique_fd other = flash_order_take_writer(TEST_SLOT, 0);
    EXPECT_EQ(program(file_of("image", newer)), BIOS_FLASH_ERR_IN_USE);
    expect_untouched();
}

// Whoever puts another file in the place of the image does not change what is written.
TEST_F(FlashClaim, WritesAllAttemptsFromTheImageThatItBeganWith)
{
    give_order(newer);
    const std::string path = file_of("image", newer);
    set_fault("fail program 3");
    EXPECT_EQ(program(path), BIOS_FLASH_ERR_PROGRAM);
    EXPECT_EQ(order().state, flash_order_state::writing);
    std::filesystem::remove(path);
    EXPECT_EQ(program(path, 2), 0);
    EXPECT_EQ(flash_contents(), newer);
    EXPECT_EQ(order().state, flash_order_state::verified);
}

TEST_F(FlashClaim, DoesNotWriteAnImageThatWasOverwrittenMeanwhile)
{
    const std::string path = file_of("image", newer);
    set_fault("fail program 3");
    EXPECT_EQ(program(path), BIOS_FLASH_ERR_PROGRAM);
    file_of("image", older); // the same file
    EXPECT_EQ(program(path, 2), bios_signed(BIOS_REFUSED_CHANGED));
    EXPECT_TRUE(is_marked());
    file_of("image", newer);
    EXPECT_EQ(program(path, 3), 0);
    EXPECT_EQ(flash_contents(), newer);
}

TEST_F(FlashClaim, HasFailedWhenTheProcessEnds)
{
    give_order(newer);
    const std::string path = file_of("image", newer);
    write_flash_file("faults", "fail program always\n");
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        (void)program(path);
        std::exit(0);
    }
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_EQ(order().state, flash_order_state::failed);
    EXPECT_EQ(order().result, 0x4071000cU);
    EXPECT_FALSE(has_own_name(dir));
}

TEST_F(FlashClaim, HasFailedWithoutAResultWhenTheProcessIsKilled)
{
    give_order(newer);
    const std::string path = file_of("image", newer);
    write_flash_file("faults", "stop program 3\n");
    const int status = status_of_child([&] { return program(path); });
    EXPECT_TRUE(was_killed(status));
    EXPECT_EQ(order().state, flash_order_state::failed);
    EXPECT_EQ(order().result, 0U);
    give_order(newer);
    EXPECT_EQ(program(path), 0);
    EXPECT_FALSE(has_own_name(dir));
}

TEST_F(FlashClaim, ErasesNothingWithoutAnImageThatMayBeWritten)
{
    const std::string there = flash_temporary_image;
    std::filesystem::remove(there);
    EXPECT_EQ(ibexpeak_bios_flash_erase(SELECTOR), bios_signed(BIOS_REFUSED_NO_IMAGE));
    file_of("temporary", random_bytes(SMALL_FLASH.size_bytes));
    EXPECT_EQ(ibexpeak_bios_flash_erase(SELECTOR), bios_signed(BIOS_REFUSED_NO_VERSION));
    file_of("temporary", random_image(SMALL_FLASH.size_bytes + 1));
    EXPECT_EQ(ibexpeak_bios_flash_erase(SELECTOR), bios_signed(BIOS_REFUSED_TOO_LARGE));
    give_order(newer);
    file_of("temporary", older);
    EXPECT_EQ(ibexpeak_bios_flash_erase(SELECTOR), bios_signed(BIOS_REFUSED_OTHER_IMAGE));
    expect_untouched();
}

TEST_F(FlashClaim, OfAnEraseIsThatOfTheAttemptsBehindIt)
{
    give_order(newer);
    file_of("temporary", newer);
    EXPECT_EQ(ibexpeak_bios_flash_erase(SELECTOR), 0);
    EXPECT_EQ(order().state, flash_order_state::writing);
    EXPECT_EQ(order().old_version, "v3.5.0(09/17/12)");
    EXPECT_EQ(program_erased(flash_temporary_image), 0);
    EXPECT_EQ(flash_contents(), newer);
    EXPECT_EQ(order().state, flash_order_state::verified);
}
