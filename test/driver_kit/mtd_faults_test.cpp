// What the kernel's own errors become: those of an MTD that fails on demand.
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <unistd.h>

#include <gtest/gtest.h>

#include "bios_results.h"
#include "flash_device.h"
#include "flash_programming.h"
#include "flash_surroundings.h"
#include "mtd_faults.h"

namespace
{

using bytes = std::vector<std::uint8_t>;

int error_of(bool succeeded)
{
    return succeeded ? 0 : errno;
}

class MtdFaults : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!has_mtd_faults())
            GTEST_SKIP() << "the MTD has no errors on demand";
        make_flash();
        flash_ = open();
        ASSERT_NE(flash_, nullptr);
        sector_ = flash_->geometry().sector_bytes;
        page_ = bytes(flash_->geometry().page_bytes, 0x5a);
    }
    void TearDown() override
    {
        if (!has_mtd_faults())
            return;
        flash_.reset();
        remove_flash();
        std::filesystem::remove(image_path_);
    }

    static std::unique_ptr<flash_device> open()
    {
        flash_part *part = tested_flash_driver.open(0, flash_access::write);
        return part == nullptr ? nullptr : std::make_unique<flash_device>(tested_flash_driver, part);
    }
    bool program_page(std::uint32_t offset)
    {
        return flash_->program(offset, page_.data(), static_cast<std::uint32_t>(page_.size()));
    }
    std::int32_t program_image(const bytes &image)
    {
        std::ofstream(image_path_, std::ios::binary)
            .write(reinterpret_cast<const char *>(image.data()), static_cast<std::streamsize>(image.size()));
        flash_progress progress(0, -1, 0, 0, 1, nullptr);
        return flash_program_image(*flash_, *flash_image::open(image_path_.c_str()),
                                   flash_programming_mode::erase_and_write, progress);
    }
    // An image of some sectors, the rest of the flash blank.
    bytes image_of(std::uint8_t value) const { return bytes(4 * sector_, value); }
    void expect_programmed(const bytes &image) const
    {
        bytes whole = image;
        whole.resize(flash_->geometry().size_bytes, FLASH_ERASED_BYTE);
        EXPECT_TRUE(flash_contents() == whole);
        EXPECT_FALSE(flash_->is_marked());
    }

    std::unique_ptr<flash_device> flash_;
    std::uint32_t sector_ = 0;
    bytes page_;
    const std::string image_path_ =
        std::filesystem::temp_directory_path() / ("image." + std::to_string(::getpid()));
};

} // namespace

TEST_F(MtdFaults, FailsAtItsPlaceAlone)
{
    set_mtd_fault("erase_fails_at", 2 * sector_ + 1);
    EXPECT_EQ(error_of(flash_->erase(2)), EIO);
    EXPECT_EQ(error_of(flash_->erase(1)), 0);
    set_mtd_fault("write_fails_at", sector_ + 1);
    EXPECT_EQ(error_of(program_page(sector_)), EIO);
    EXPECT_EQ(error_of(program_page(0)), 0);
    set_mtd_fault("read_fails_at", 3 * sector_);
    bytes found(page_.size());
    EXPECT_EQ(error_of(flash_->read(3 * sector_, found.data(), 1)), EIO);
    EXPECT_EQ(error_of(flash_->read(0, found.data(), static_cast<std::uint32_t>(found.size()))), 0);
    EXPECT_EQ(found, page_);
}

TEST_F(MtdFaults, DoesNotChangeWhatWasLockedMeanwhile)
{
    EXPECT_FALSE(flash_->is_protected(1));
    set_mtd_fault("locked_at", sector_);
    EXPECT_EQ(error_of(flash_->erase(1)), EPERM);
    EXPECT_EQ(error_of(program_page(sector_)), EPERM);
    flash_.reset();
    flash_ = open();
    EXPECT_TRUE(flash_->is_protected(1)) << "known before anything is touched, by who opens it now";
}

TEST_F(MtdFaults, EndProgrammingsMarkedUntilOneSucceeds)
{
    ASSERT_EQ(program_image(image_of(0x11)), 0);
    set_mtd_fault("erase_fails_at", 2 * sector_);
    EXPECT_EQ(program_image(image_of(0x22)), BIOS_FLASH_ERR_ERASE);
    EXPECT_TRUE(flash_->is_marked());
    clear_mtd_faults();
    set_mtd_fault("write_fails_at", 3 * sector_ + 5);
    EXPECT_EQ(program_image(image_of(0x22)), BIOS_FLASH_ERR_PROGRAM);
    EXPECT_TRUE(flash_->is_marked());
    set_mtd_fault("write_fails_at", NOWHERE);
    set_mtd_fault("read_fails_at", sector_);
    EXPECT_EQ(program_image(image_of(0x22)), BIOS_FLASH_ERR_PROGRAM);
    EXPECT_TRUE(flash_->is_marked());
    clear_mtd_faults();
    EXPECT_EQ(program_image(image_of(0x22)), 0);
    expect_programmed(image_of(0x22));
}

TEST_F(MtdFaults, LeaveAFlashAloneThatCannotBeRead)
{
    ASSERT_EQ(program_image(image_of(0x11)), 0);
    set_mtd_fault("read_fails_at", sector_);
    EXPECT_EQ(program_image(image_of(0x22)), BIOS_FLASH_ERR_NO_FLASH);
    clear_mtd_faults();
    expect_programmed(image_of(0x11));
}
