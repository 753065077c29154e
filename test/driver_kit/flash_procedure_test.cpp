// The programming procedure over any driver, and over one whose operations go wrong.
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include <gtest/gtest.h>

#include "bios_flash.h"
#include "bios_results.h"
#include "flash_device.h"
#include "flash_programming.h"
#include "flash_surroundings.h"

namespace
{

using bytes = std::vector<std::uint8_t>;

constexpr std::int32_t NO_ENDPOINT = -1; // progress goes nowhere, which stops nobody

// The tested driver, with one operation of the test's instead.
flash_driver altered_driver;
unsigned asked;   // of the altered operation
bool has_altered; // whether it went wrong

std::unique_ptr<flash_device> open_by(const flash_driver &driver)
{
    return std::make_unique<flash_device>(driver, driver.open(0, flash_access::write));
}

class FlashProcedure : public testing::Test
{
protected:
    void SetUp() override
    {
        make_flash();
        altered_driver = tested_flash_driver;
        asked = 0;
        has_altered = false;
        const auto flash = open_by(tested_flash_driver);
        geometry_ = flash->geometry();
    }
    void TearDown() override
    {
        remove_flash();
        std::filesystem::remove(image_path_);
    }

    // An image of random bytes; the same ones for the same number.
    bytes image(unsigned number, std::uint32_t length) const
    {
        std::mt19937 random(number);
        bytes made(length);
        for (std::uint8_t &byte : made)
            byte = static_cast<std::uint8_t>(random());
        return made;
    }
    bytes whole_image(unsigned number) const { return image(number, geometry_.size_bytes); }

    std::int32_t program(flash_device &flash, const bytes &wanted,
                         flash_programming_mode mode = flash_programming_mode::erase_and_write)
    {
        std::ofstream(image_path_, std::ios::binary)
            .write(reinterpret_cast<const char *>(wanted.data()), static_cast<std::streamsize>(wanted.size()));
        const auto opened = flash_image::open(image_path_.c_str());
        if (!opened)
            return -1;
        flash_progress progress(0, NO_ENDPOINT, 0, 0, 1, nullptr);
        return flash_program_image(flash, *opened, mode, progress);
    }
    std::int32_t program(const bytes &wanted) { return program(*open_by(altered_driver), wanted); }
    void expect_programmed(const bytes &wanted) const
    {
        bytes whole = wanted;
        whole.resize(geometry_.size_bytes, FLASH_ERASED_BYTE);
        EXPECT_EQ(flash_contents() == whole, true);
        EXPECT_FALSE(is_marked());
    }
    static bool is_marked() { return open_by(tested_flash_driver)->is_marked(); }

    flash_geometry geometry_;
    const std::string image_path_ =
        std::filesystem::temp_directory_path() / ("image." + std::to_string(::getpid()));
};

} // namespace

TEST_F(FlashProcedure, WritesAnImageAndTheNextOne)
{
    for (const unsigned number : {1U, 2U}) {
        EXPECT_EQ(program(whole_image(number)), 0);
        expect_programmed(whole_image(number));
    }
}

TEST_F(FlashProcedure, FillsUpASmallerImageWithErasedBytes)
{
    ASSERT_EQ(program(whole_image(1)), 0);
    const bytes small = image(2, geometry_.sector_bytes + geometry_.page_bytes / 2);
    EXPECT_EQ(program(small), 0);
    expect_programmed(small);
}

TEST_F(FlashProcedure, ChangesNothingOfAnEqualFlash)
{
    ASSERT_EQ(program(whole_image(1)), 0);
    const auto flash = open_by(tested_flash_driver);
    EXPECT_EQ(program(*flash, whole_image(1)), 0);
    EXPECT_EQ(flash->wear().erases, 0U);
    EXPECT_EQ(flash->wear().programs, 0U);
}

TEST_F(FlashProcedure, ErasesTheSectorsThatDifferOnly)
{
    ASSERT_EQ(program(whole_image(1)), 0);
    bytes changed = whole_image(1);
    changed[geometry_.sector_bytes] ^= 0xff;
    changed[3 * geometry_.sector_bytes] ^= 0xff;
    const auto flash = open_by(tested_flash_driver);
    EXPECT_EQ(program(*flash, changed), 0);
    EXPECT_EQ(flash->wear().erases, 2U);
    EXPECT_EQ(flash_contents() == changed, true);
}

TEST_F(FlashProcedure, TouchesNothingWhenAChangedSectorIsProtected)
{
    ASSERT_EQ(program(whole_image(1)), 0);
    if (!protect_flash_sector(2))
        GTEST_SKIP() << "the part cannot be protected";
    const auto flash = open_by(tested_flash_driver);
    EXPECT_EQ(program(*flash, whole_image(2)), BIOS_FLASH_ERR_PROTECTED);
    EXPECT_EQ(flash->wear().erases + flash->wear().programs, 0U);
    EXPECT_EQ(flash_contents() == whole_image(1), true);
    EXPECT_FALSE(flash->is_marked());
}

TEST_F(FlashProcedure, LeavesAnErasedFlashMarkedUntilItIsWritten)
{
    ASSERT_EQ(program(whole_image(1)), 0);
    const auto flash = open_by(tested_flash_driver);
    EXPECT_EQ(flash_erase_whole(*flash, [](std::uint32_t) {}), 0);
    EXPECT_EQ(flash_contents(), bytes(geometry_.size_bytes, FLASH_ERASED_BYTE));
    EXPECT_TRUE(flash->is_marked());
    EXPECT_EQ(program(*flash, whole_image(2), flash_programming_mode::write_only), 0);
    EXPECT_EQ(flash_contents() == whole_image(2), true);
    EXPECT_FALSE(flash->is_marked());
}

TEST_F(FlashProcedure, EndsMarkedWhenAnEraseFailsAndTheNextAttemptRepairs)
{
    ASSERT_EQ(program(whole_image(1)), 0);
    altered_driver.erase = [](flash_part *part, std::uint32_t sector) {
        if (++asked != 3)
            return tested_flash_driver.erase(part, sector);
        errno = EIO;
        return false;
    };
    EXPECT_EQ(program(whole_image(2)), BIOS_FLASH_ERR_ERASE);
    EXPECT_TRUE(is_marked());
    EXPECT_EQ(program(whole_image(2)), 0);
    expect_programmed(whole_image(2));
}

// A part that says that it has written and has not.
TEST_F(FlashProcedure, FindsAProgramThatDidNothing)
{
    altered_driver.program = [](flash_part *part, std::uint32_t offset, const std::uint8_t *from,
                                std::uint32_t length) {
        return ++asked == 2 || tested_flash_driver.program(part, offset, from, length);
    };
    EXPECT_EQ(program(whole_image(1)), BIOS_FLASH_ERR_PROGRAM);
    EXPECT_TRUE(is_marked());
    EXPECT_EQ(program(whole_image(1)), 0);
    expect_programmed(whole_image(1));
}

TEST_F(FlashProcedure, ErasesAgainWhatAnEraseHasLeft)
{
    ASSERT_EQ(program(whole_image(1)), 0);
    altered_driver.erase = [](flash_part *part, std::uint32_t sector) {
        return ++asked == 2 || tested_flash_driver.erase(part, sector);
    };
    EXPECT_EQ(program(whole_image(2)), 0);
    expect_programmed(whole_image(2));
}

// One bit read wrong, once, is no bad flash.
TEST_F(FlashProcedure, ReadsAgainBeforeItTakesASectorForWrong)
{
    ASSERT_EQ(program(whole_image(1)), 0);
    altered_driver.read = [](flash_part *part, std::uint32_t offset, std::uint8_t *into, std::uint32_t length) {
        const bool done = tested_flash_driver.read(part, offset, into, length);
        if (done && ++asked == 2) {
            into[length / 2] ^= 0x10;
            has_altered = true;
        }
        return done;
    };
    const auto flash = open_by(altered_driver);
    EXPECT_EQ(program(*flash, whole_image(1)), 0);
    EXPECT_TRUE(has_altered);
    EXPECT_EQ(flash->wear().erases + flash->wear().programs, 0U);
}

TEST_F(FlashProcedure, TouchesNothingWithoutItsMarker)
{
    ASSERT_EQ(program(whole_image(1)), 0);
    altered_driver.set_marker = [](flash_part *) {
        errno = EIO;
        return false;
    };
    EXPECT_EQ(program(whole_image(2)), BIOS_FLASH_ERR_ERASE);
    EXPECT_EQ(flash_contents() == whole_image(1), true);
    altered_driver.set_marker = [](flash_part *) { return true; }; // says so, and there is none
    EXPECT_EQ(program(whole_image(2)), BIOS_FLASH_ERR_ERASE);
    EXPECT_EQ(flash_contents() == whole_image(1), true);
}

TEST_F(FlashProcedure, IsNoSuccessUntilAllIsOnStableStorage)
{
    altered_driver.sync = [](flash_part *) {
        errno = EIO;
        return false;
    };
    EXPECT_EQ(program(whole_image(1)), BIOS_FLASH_ERR_PROGRAM);
    EXPECT_TRUE(is_marked());
}
