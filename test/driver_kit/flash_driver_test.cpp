// The promises of flash_driver.h, for any driver.
#include <cerrno>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "flash_device.h"
#include "flash_surroundings.h"

namespace
{

using bytes = std::vector<std::uint8_t>;

class FlashDriver : public testing::Test
{
protected:
    void SetUp() override { make_flash(); }
    void TearDown() override { remove_flash(); }

    static std::unique_ptr<flash_device> open(flash_access access, unsigned instance = 0)
    {
        flash_part *part = tested_flash_driver.open(instance, access);
        return part == nullptr ? nullptr : std::make_unique<flash_device>(tested_flash_driver, part);
    }
    static std::unique_ptr<flash_device> writer() { return open(flash_access::write); }
    static std::unique_ptr<flash_device> reader() { return open(flash_access::read); }

    // The bytes that the part holds at a place, read through another opening, and seen from outside.
    static void expect_holds(std::uint32_t offset, const bytes &wanted)
    {
        const auto other = reader();
        ASSERT_NE(other, nullptr);
        bytes found(wanted.size(), 0x5a);
        ASSERT_TRUE(other->read(offset, found.data(), static_cast<std::uint32_t>(found.size())));
        EXPECT_EQ(found, wanted);
        const bytes all = flash_contents();
        ASSERT_GE(all.size(), offset + wanted.size());
        EXPECT_EQ(bytes(all.begin() + offset, all.begin() + offset + static_cast<std::ptrdiff_t>(wanted.size())),
                  wanted);
    }
    static void expect_blank() { EXPECT_EQ(flash_contents(), bytes(flash_contents().size(), FLASH_ERASED_BYTE)); }
};

// What an operation left in errno; 0 when it succeeded.
int error_of(bool succeeded)
{
    return succeeded ? 0 : errno;
}

bytes page_of(const flash_device &flash, std::uint8_t value)
{
    return bytes(flash.geometry().page_bytes, value);
}

} // namespace

TEST_F(FlashDriver, RecordIsComplete)
{
    const flash_driver &driver = tested_flash_driver;
    ASSERT_NE(driver.name, nullptr);
    EXPECT_STRNE(driver.name, "");
    EXPECT_TRUE(driver.open && driver.close && driver.geometry && driver.is_protected && driver.erase &&
                driver.program && driver.read && driver.sync && driver.is_marked && driver.set_marker &&
                driver.clear_marker && driver.wear);
}

TEST_F(FlashDriver, OpensNoFlashThatTheCardHasNot)
{
    for (const flash_access access : {flash_access::read, flash_access::write}) {
        errno = 0;
        EXPECT_EQ(open(access, 1), nullptr);
        EXPECT_TRUE(errno == ENOENT || errno == EINVAL) << errno;
        EXPECT_EQ(open(access, FLASH_INSTANCE_COUNT), nullptr);
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST_F(FlashDriver, TellsAGeometryThatHolds)
{
    const auto flash = reader();
    ASSERT_NE(flash, nullptr);
    EXPECT_TRUE(flash_geometry_valid(flash->geometry()));
    EXPECT_EQ(flash->geometry().size_bytes, flash_contents().size());
    EXPECT_GE(flash->sector_count(), 4U);
    EXPECT_GE(flash->geometry().sector_bytes, 2 * flash->geometry().page_bytes);
}

TEST_F(FlashDriver, HasOneWriterAndAnyReaders)
{
    auto first = writer();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(writer(), nullptr) << "in the same process";
    EXPECT_EQ(errno, EBUSY);
    const auto beside = reader();
    EXPECT_NE(beside, nullptr);
    EXPECT_NE(reader(), nullptr);
    first.reset();
    EXPECT_NE(writer(), nullptr) << "the last one has closed it";
}

TEST_F(FlashDriver, IsFreeWhenItsWriterWasKilled)
{
    if (!flash_is_shared_by_processes())
        GTEST_SKIP() << "the flash is in the memory of one process";
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        const auto flash = writer();
        const char word = flash != nullptr ? 'y' : 'n';
        (void)!::write(ends[1], &word, 1);
        for (;;)
            (void)::pause();
    }
    char word = '\0';
    ASSERT_EQ(::read(ends[0], &word, 1), 1);
    EXPECT_EQ(word, 'y');
    EXPECT_EQ(writer(), nullptr);
    EXPECT_EQ(errno, EBUSY);
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_NE(writer(), nullptr);
    (void)::close(ends[0]);
    (void)::close(ends[1]);
}

TEST_F(FlashDriver, ProgramsAPageAndNothingElse)
{
    const auto flash = writer();
    ASSERT_NE(flash, nullptr);
    const std::uint32_t page = flash->geometry().page_bytes;
    bytes wanted = page_of(*flash, 0x3c);
    wanted.front() = 0x01;
    wanted.back() = 0x80;
    ASSERT_TRUE(flash->program(page, wanted.data(), page));
    expect_holds(page, wanted);
    expect_holds(0, page_of(*flash, FLASH_ERASED_BYTE));
    expect_holds(2 * page, page_of(*flash, FLASH_ERASED_BYTE));
}

TEST_F(FlashDriver, ProgramsPartOfAPage)
{
    const auto flash = writer();
    ASSERT_NE(flash, nullptr);
    const bytes wanted = {0x12, 0x34, 0x56};
    ASSERT_TRUE(flash->program(5, wanted.data(), 3));
    expect_holds(4, {FLASH_ERASED_BYTE, 0x12, 0x34, 0x56, FLASH_ERASED_BYTE});
}

TEST_F(FlashDriver, ClearsFurtherBitsWithoutAnErase)
{
    const auto flash = writer();
    ASSERT_NE(flash, nullptr);
    for (const std::uint8_t value : {std::uint8_t{0xf7}, std::uint8_t{0x37}, std::uint8_t{0x00}}) {
        ASSERT_TRUE(flash->program(0, &value, 1));
        expect_holds(0, {value, FLASH_ERASED_BYTE});
    }
}

TEST_F(FlashDriver, ErasesASectorAndNothingElse)
{
    const auto flash = writer();
    ASSERT_NE(flash, nullptr);
    const std::uint32_t sector = flash->geometry().sector_bytes;
    const bytes zeros = page_of(*flash, 0);
    for (std::uint32_t place = 0; place < 3 * sector; place += flash->geometry().page_bytes)
        ASSERT_TRUE(flash->program(place, zeros.data(), flash->geometry().page_bytes));
    ASSERT_TRUE(flash->erase(1));
    expect_holds(0, bytes(sector, 0));
    expect_holds(sector, bytes(sector, FLASH_ERASED_BYTE));
    expect_holds(2 * sector, bytes(sector, 0));
}

TEST_F(FlashDriver, ReachesItsLastSectorAndByte)
{
    const auto flash = writer();
    ASSERT_NE(flash, nullptr);
    const std::uint32_t size = flash->geometry().size_bytes;
    const std::uint8_t value = 0x42;
    ASSERT_TRUE(flash->program(size - 1, &value, 1));
    expect_holds(size - 2, {FLASH_ERASED_BYTE, 0x42});
    ASSERT_TRUE(flash->erase(flash->sector_count() - 1));
    expect_blank();
    bytes all(size);
    EXPECT_TRUE(flash->read(0, all.data(), size)) << "all of it in one call";
}

TEST_F(FlashDriver, RefusesPlacesThatDoNotFit)
{
    const auto flash = writer();
    ASSERT_NE(flash, nullptr);
    const std::uint32_t size = flash->geometry().size_bytes;
    const std::uint32_t page = flash->geometry().page_bytes;
    bytes buffer(2 * page, 0);
    EXPECT_EQ(error_of(flash->erase(flash->sector_count())), EINVAL);
    EXPECT_EQ(error_of(flash->program(0, buffer.data(), 0)), EINVAL);
    EXPECT_EQ(error_of(flash->program(1, buffer.data(), page)), EINVAL) << "across a page";
    EXPECT_EQ(error_of(flash->program(0, buffer.data(), page + 1)), EINVAL);
    EXPECT_EQ(error_of(flash->program(size, buffer.data(), 1)), EINVAL);
    EXPECT_EQ(error_of(flash->read(0, buffer.data(), 0)), EINVAL);
    EXPECT_EQ(error_of(flash->read(size, buffer.data(), 1)), EINVAL);
    EXPECT_EQ(error_of(flash->read(size - 1, buffer.data(), 2)), EINVAL);
    EXPECT_EQ(error_of(flash->read(1, buffer.data(), 0xffffffff)), EINVAL) << "the sum wraps";
    expect_blank();
}

TEST_F(FlashDriver, ChangesNothingForAReader)
{
    const auto flash = reader();
    ASSERT_NE(flash, nullptr);
    const std::uint8_t zero = 0;
    EXPECT_EQ(error_of(flash->erase(0)), EBADF);
    EXPECT_EQ(error_of(flash->program(0, &zero, 1)), EBADF);
    EXPECT_EQ(error_of(flash->set_marker()), EBADF);
    EXPECT_EQ(error_of(flash->clear_marker()), EBADF);
    EXPECT_FALSE(flash->is_marked());
    EXPECT_TRUE(flash->sync()) << "there is nothing to wait for";
    expect_blank();
}

TEST_F(FlashDriver, LeavesProtectedSectorsAloneAndTellsBefore)
{
    if (!protect_flash_sector(2))
        GTEST_SKIP() << "the part cannot be protected";
    const auto flash = writer();
    ASSERT_NE(flash, nullptr);
    for (std::uint32_t sector = 0; sector < flash->sector_count(); ++sector)
        EXPECT_EQ(flash->is_protected(sector), sector == 2) << sector;
    const std::uint8_t zero = 0;
    EXPECT_EQ(error_of(flash->erase(2)), EPERM);
    EXPECT_EQ(error_of(flash->program(2 * flash->geometry().sector_bytes, &zero, 1)), EPERM);
    expect_blank();
    EXPECT_TRUE(flash->erase(1));
    EXPECT_TRUE(flash->erase(3));
}

TEST_F(FlashDriver, KeepsItsMarkerBetweenOpenings)
{
    EXPECT_FALSE(reader()->is_marked());
    for (const bool again : {false, true}) {
        const auto flash = writer();
        ASSERT_NE(flash, nullptr);
        EXPECT_EQ(flash->is_marked(), again);
        EXPECT_TRUE(flash->set_marker());
        EXPECT_TRUE(flash->is_marked());
        EXPECT_TRUE(reader()->is_marked()) << "seen by others at once";
    }
    for (const bool again : {true, false}) {
        const auto flash = writer();
        EXPECT_EQ(flash->is_marked(), again);
        EXPECT_TRUE(flash->clear_marker());
        EXPECT_FALSE(reader()->is_marked());
    }
    expect_blank();
}

TEST_F(FlashDriver, CountsWhatWasDoneSinceItWasOpened)
{
    const auto flash = writer();
    ASSERT_NE(flash, nullptr);
    std::uint8_t byte = 0;
    ASSERT_TRUE(flash->erase(0) && flash->erase(1));
    ASSERT_TRUE(flash->program(0, &byte, 1) && flash->program(1, &byte, 1) && flash->program(2, &byte, 1));
    ASSERT_TRUE(flash->read(0, &byte, 1));
    EXPECT_EQ(flash->wear().erases, 2U);
    EXPECT_EQ(flash->wear().programs, 3U);
    EXPECT_EQ(flash->wear().reads, 1U);
    const auto other = reader();
    EXPECT_EQ(other->wear().erases + other->wear().programs + other->wear().reads, 0U);
}

TEST_F(FlashDriver, SyncsWhatWasChanged)
{
    const auto flash = writer();
    ASSERT_NE(flash, nullptr);
    const std::uint8_t value = 0x99;
    ASSERT_TRUE(flash->program(7, &value, 1));
    EXPECT_TRUE(flash->sync());
    expect_holds(7, {0x99});
}
