// What is the MTD driver's own: finding an MTD, what keeps it from being used, and what the kernel's failures
// become. The MTDs are played; the promises that all drivers make are test/driver_kit's.
#include <cerrno>
#include <sched.h>
#include <sys/mount.h>

#include "bios_results.h"
#include "flash_fixture.h"
#include "flash_programming.h"
#include "mtd_card.h"
#include "mtd_flash.h"

namespace
{

constexpr std::uint32_t SECTOR = 4 << 10;
constexpr std::uint32_t PAGE = 2 << 10;
constexpr std::uint32_t MTD_READ_ONLY_FLAGS = 0x800;

int error_of(bool succeeded)
{
    return succeeded ? 0 : errno;
}

class Mtd : public testing::Test
{
protected:
    void SetUp() override
    {
        kernel.add({.name = "bios"});
        card.name_flash(0, "bios");
    }
    void TearDown() override
    {
        EXPECT_EQ(kernel.opened, 0U) << "devices are left open";
        EXPECT_TRUE(kernel.is_closed_on_exec);
    }

    // Null with problem_ when it is not opened.
    std::unique_ptr<mtd_flash> open(flash_access access, const std::string &name = "bios", unsigned instance = 0)
    {
        return mtd_flash::open(kernel.calls(), mtd_card::SLOT, instance, name, access, problem_);
    }
    std::unique_ptr<mtd_flash> writer() { return open(flash_access::write); }
    std::unique_ptr<mtd_flash> reader() { return open(flash_access::read); }
    void expect_not_opened(int reason, const std::string &problem, const std::string &name = "bios")
    {
        for (const flash_access access : {flash_access::read, flash_access::write}) {
            errno = 0;
            EXPECT_EQ(open(access, name), nullptr);
            EXPECT_EQ(errno, reason);
            EXPECT_EQ(problem_, problem);
        }
    }
    memory_mtd &mtd() { return kernel.mtd(0); }
    void fail_with(mtd_operation failing, int reason)
    {
        kernel.fault = [failing, reason](mtd_operation operation, std::uint64_t) {
            return operation == failing ? reason : 0;
        };
    }
    std::string syslog() const
    {
        std::ifstream file(card.file(chassis_slot_path(mtd_card::SLOT, "syslog")));
        return rest_of(file);
    }

    mtd_card card;
    memory_mtds &kernel = card.kernel;
    std::string problem_;
};

std::size_t count_of(const std::string &text, const std::string &part)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

} // namespace

// Finding it

TEST_F(Mtd, IsFoundByItsName)
{
    kernel.add({.name = "bios2"});
    kernel.add({.name = "wanted", .size_bytes = 128 << 10});
    const auto flash = open(flash_access::write, "wanted");
    ASSERT_NE(flash, nullptr) << problem_;
    EXPECT_EQ(flash->geometry().size_bytes, 128U << 10);
    ASSERT_TRUE(flash->program(0, flash_bytes{0x12}.data(), 1));
    EXPECT_EQ(kernel.contents(2)[0], 0x12);
    EXPECT_EQ(kernel.contents(0)[0], 0xff);
}

TEST_F(Mtd, IsNotOpenedWithoutItsName)
{
    expect_not_opened(ENOENT, "no MTD has the name \"bio\"", "bio");
    expect_not_opened(ENOENT, "no MTD has the name \"\"", "");
    kernel.remove(0);
    expect_not_opened(ENOENT, "no MTD has the name \"bios\"");
}

TEST_F(Mtd, IsNotOpenedWhenThereAreTwoOfItsName)
{
    kernel.add({.name = "other"});
    kernel.add({.name = "bios"});
    expect_not_opened(EINVAL, "several MTDs have the name \"bios\": mtd0 and mtd2");
}

TEST_F(Mtd, IsNotThereInAKernelWithoutMtds)
{
    mtd_calls calls = kernel.calls();
    calls.sysfs = "/proc/there/is/none";
    std::string problem;
    EXPECT_EQ(mtd_flash::open(calls, mtd_card::SLOT, 0, "bios", flash_access::read, problem), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(problem, "no MTD has the name \"bios\"");
}

TEST_F(Mtd, IsNotOpenedWhenItIsNoNorFlash)
{
    mtd().type = 4;
    expect_not_opened(EINVAL, "mtd0 cannot be used: it is NAND flash, and only NOR flash and RAM are programmed");
}

TEST_F(Mtd, IsNotOpenedByAnotherDevicesNode)
{
    mtd().device_number = "90:6";
    kernel.describe_again(0);
    expect_not_opened(ENXIO, "mtd0: No such device or address");
}

TEST_F(Mtd, IsNotOpenedWithoutItsNode)
{
    std::filesystem::remove(std::string(kernel.calls().devices) + "/mtd0");
    expect_not_opened(ENOENT, "mtd0: No such file or directory");
}

// Its number was given to another one between being found and being opened.
TEST_F(Mtd, IsNotOpenedUnderANumberThatHasAnotherByNow)
{
    kernel.fault = [this](mtd_operation operation, std::uint64_t) {
        if (operation == mtd_operation::info) {
            mtd().name = "renamed";
            kernel.describe_again(0);
        }
        return 0;
    };
    EXPECT_EQ(writer(), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(problem_, "mtd0: its name has changed");
}

// The kernel's record of it has 32 bits for the size.
TEST_F(Mtd, IsNotOpenedWithASizeOfMoreThan32Bits)
{
    mtd().size_bytes = (std::uint64_t{4} << 30) + (64 << 10);
    kernel.describe_again(0);
    expect_not_opened(EINVAL, "mtd0 cannot be used: it has 4295032832 bytes, more than any flash");
}

TEST_F(Mtd, IsNotOpenedWhenItsSizesDiffer)
{
    kernel.describe_again(0);
    mtd().size_bytes = 32 << 10; // by now; the list is older
    expect_not_opened(EINVAL, "mtd0: Invalid argument");
}

TEST_F(Mtd, IsNotOpenedWhenTheKernelDoesNotDescribeIt)
{
    fail_with(mtd_operation::info, ENODEV);
    expect_not_opened(ENODEV, "mtd0: No such device");
}

TEST_F(Mtd, HasRegionsThatTheKernelDescribes)
{
    mtd().regions = {{.offset = 0, .erase_bytes = SECTOR / 4, .count = 4}, {SECTOR, SECTOR, 15}};
    EXPECT_NE(reader(), nullptr) << problem_;
    mtd().regions[1].offset = SECTOR / 2;
    expect_not_opened(EINVAL,
                      "mtd0 cannot be used: its sectors of different sizes do not add up to sectors of one size");
}

// Protection

TEST_F(Mtd, IsAllProtectedWhenItIsNotWriteable)
{
    mtd().flags = MTD_READ_ONLY_FLAGS;
    const auto flash = writer();
    ASSERT_NE(flash, nullptr) << problem_;
    for (std::uint32_t sector = 0; sector < 16; ++sector)
        EXPECT_TRUE(flash->is_protected(sector)) << sector;
    EXPECT_EQ(error_of(flash->erase(3)), EPERM);
    EXPECT_EQ(error_of(flash->program(0, flash_bytes{0}.data(), 1)), EPERM);
    EXPECT_TRUE(flash->sync()) << "nothing was changed";
    EXPECT_EQ(kernel.operations, 0U);
}

TEST_F(Mtd, IsNotOpenedForWritingByWhoMayNotWriteIt)
{
    mtd_calls calls = kernel.calls();
    static const mtd_calls *real;
    real = &kernel.calls();
    calls.open = [](const char *path, int flags) {
        if ((flags & O_ACCMODE) == O_RDONLY)
            return real->open(path, flags);
        errno = EACCES;
        return -1;
    };
    EXPECT_EQ(mtd_flash::open(calls, mtd_card::SLOT, 0, "bios", flash_access::write, problem_), nullptr);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(problem_, "mtd0: Permission denied");
}

TEST_F(Mtd, AsksOnceWhetherASectorIsLocked)
{
    mtd().locked_sectors = {2};
    std::vector<std::uint64_t> asked;
    kernel.fault = [&](mtd_operation operation, std::uint64_t offset) {
        if (operation == mtd_operation::is_locked)
            asked.push_back(offset);
        return 0;
    };
    const auto flash = writer();
    EXPECT_EQ(asked.size(), 0U) << "sectors that nobody changes";
    for (unsigned again = 0; again < 2; ++again) {
        EXPECT_TRUE(flash->is_protected(2));
        EXPECT_FALSE(flash->is_protected(3));
        EXPECT_TRUE(flash->program(3 * SECTOR, flash_bytes{0}.data(), 1));
    }
    EXPECT_EQ(asked, (std::vector<std::uint64_t>{2 * SECTOR, 3 * SECTOR}));
}

TEST_F(Mtd, HasNoProtectionWithoutLocks)
{
    mtd().has_locks = false;
    const auto flash = writer();
    EXPECT_FALSE(flash->is_protected(0));
    EXPECT_TRUE(flash->erase(0));
}

TEST_F(Mtd, IsProtectedWhereNobodyCanTell)
{
    fail_with(mtd_operation::is_locked, EIO);
    const auto flash = writer();
    EXPECT_TRUE(flash->is_protected(0));
    EXPECT_EQ(error_of(flash->erase(0)), EPERM);
    EXPECT_EQ(kernel.operations, 0U);
}

// It was locked after it had been asked for.
TEST_F(Mtd, SaysThatTheKernelDidNotWantAChange)
{
    const auto flash = writer();
    EXPECT_FALSE(flash->is_protected(1));
    mtd().locked_sectors = {1};
    EXPECT_EQ(error_of(flash->erase(1)), EPERM);
    EXPECT_EQ(error_of(flash->program(SECTOR, flash_bytes{0}.data(), 1)), EPERM);
}

// Failures of the kernel

TEST_F(Mtd, FailsWithOneErrorWhateverTheKernelSays)
{
    const auto flash = writer();
    flash_bytes page(PAGE, 0);
    for (const int reason : {EIO, ETIMEDOUT, EINVAL, ENODEV, ENXIO, EBUSY, EAGAIN, ENOSPC, EBADF, ENOMEM}) {
        fail_with(mtd_operation::erase, reason);
        EXPECT_EQ(error_of(flash->erase(0)), EIO) << reason;
        fail_with(mtd_operation::write, reason);
        EXPECT_EQ(error_of(flash->program(0, page.data(), PAGE)), EIO) << reason;
        fail_with(mtd_operation::read, reason);
        EXPECT_EQ(error_of(flash->read(0, page.data(), PAGE)), EIO) << reason;
    }
    EXPECT_EQ(kernel.operations, 0U);
}

TEST_F(Mtd, GoesOnBehindAShortWrite)
{
    const auto flash = writer();
    flash_bytes page = random_bytes(PAGE);
    kernel.bytes_at_once = 900;
    EXPECT_TRUE(flash->program(PAGE, page.data(), PAGE));
    EXPECT_EQ(piece_of(kernel.contents(), PAGE, PAGE), page);
    EXPECT_EQ(kernel.write_lengths, (std::vector<std::size_t>{PAGE, PAGE - 900, PAGE - 1800}));
    kernel.bytes_at_once = 0;
    EXPECT_EQ(error_of(flash->program(0, page.data(), PAGE)), EIO) << "a part that takes nothing";
}

TEST_F(Mtd, FailsAfterAWriteThatWasCutByAnError)
{
    const auto flash = writer();
    const flash_bytes page(PAGE, 0);
    kernel.bytes_at_once = 100;
    kernel.fault = [](mtd_operation operation, std::uint64_t offset) {
        return operation == mtd_operation::write && offset == 200 ? EIO : 0;
    };
    EXPECT_EQ(error_of(flash->program(0, page.data(), PAGE)), EIO);
    EXPECT_EQ(flash->wear().programs, 1U);
}

TEST_F(Mtd, FailsToReadLessThanItWasAskedFor)
{
    const auto flash = reader();
    flash_bytes page(PAGE);
    kernel.bytes_at_once = 100;
    EXPECT_EQ(error_of(flash->read(0, page.data(), PAGE)), EIO);
    kernel.bytes_at_once = 0;
    EXPECT_EQ(error_of(flash->read(0, page.data(), PAGE)), EIO);
}

TEST_F(Mtd, RepeatsWhatASignalHasInterrupted)
{
    const auto flash = writer();
    unsigned interruptions = 0;
    kernel.fault = [&](mtd_operation operation, std::uint64_t) {
        return operation != mtd_operation::is_locked && ++interruptions % 2 == 1 ? EINTR : 0;
    };
    flash_bytes page = random_bytes(PAGE);
    EXPECT_TRUE(flash->program(0, page.data(), PAGE));
    flash_bytes found(PAGE);
    EXPECT_TRUE(flash->read(0, found.data(), PAGE));
    EXPECT_EQ(found, page);
    EXPECT_EQ(interruptions, 4U);
}

TEST_F(Mtd, HasFailedWhenItIsGone)
{
    const auto flash = writer();
    kernel.remove(0);
    kernel.fault = [](mtd_operation, std::uint64_t) { return ENODEV; };
    flash_bytes page(PAGE);
    EXPECT_EQ(error_of(flash->read(0, page.data(), PAGE)), EIO);
    EXPECT_TRUE(flash->is_protected(0));
    EXPECT_EQ(error_of(flash->sync()), EIO);
}

// Writing

TEST_F(Mtd, IsSyncedByClosingAnOpeningForWriting)
{
    auto flash = writer();
    EXPECT_EQ(kernel.closed_writers, 0U);
    EXPECT_TRUE(flash->sync());
    EXPECT_EQ(kernel.closed_writers, 1U);
    const auto other = reader();
    EXPECT_TRUE(other->sync());
    EXPECT_EQ(kernel.closed_writers, 1U);
}

// A part with error correction takes sixteen bytes at a time.
TEST_F(Mtd, GetsWholeUnitsOfWhatItTakesAtATime)
{
    mtd().write_bytes = 16;
    const auto flash = writer();
    ASSERT_NE(flash, nullptr) << problem_;
    const flash_bytes few = {1, 2, 3};
    EXPECT_TRUE(flash->program(30, few.data(), 3));
    EXPECT_EQ(piece_of(kernel.contents(), 29, 5), (flash_bytes{0xff, 1, 2, 3, 0xff}));
    EXPECT_TRUE(flash->program(PAGE - 1, few.data(), 1));
    EXPECT_EQ(piece_of(kernel.contents(), PAGE - 2, 3), (flash_bytes{0xff, 1, 0xff}));
    const flash_bytes page = random_bytes(PAGE);
    EXPECT_TRUE(flash->program(PAGE, page.data(), PAGE));
    EXPECT_EQ(piece_of(kernel.contents(), PAGE, PAGE), page);
    EXPECT_EQ(kernel.write_lengths, (std::vector<std::size_t>{32, 16, PAGE}));
}

// State

TEST_F(Mtd, IsReadWithoutLeavingAnything)
{
    {
        const auto flash = reader();
        ASSERT_NE(flash, nullptr) << problem_;
        EXPECT_FALSE(flash->is_marked());
        std::uint8_t byte = 0;
        EXPECT_TRUE(flash->read(0, &byte, 1));
    }
    EXPECT_FALSE(std::filesystem::exists(card.file("slots/3/flash")));
}

TEST_F(Mtd, KeepsMarkerAndWearInTheFoldersOfTheCard)
{
    {
        const auto flash = writer();
        ASSERT_NE(flash, nullptr) << problem_;
        EXPECT_TRUE(flash->set_marker() && flash->erase(0) && flash->erase(1));
    }
    EXPECT_TRUE(std::filesystem::exists(card.flash_file("programming")));
    EXPECT_TRUE(reader()->is_marked());
    EXPECT_FALSE(open(flash_access::read, "bios", 1)->is_marked()) << "the other flash";
    EXPECT_EQ(flash_wear_load(flash_folder_path(mtd_card::SLOT, 0).c_str()).erases, 2U);
}

TEST_F(Mtd, HasOneWriterWhoIsNoProblem)
{
    const auto first = writer();
    EXPECT_EQ(writer(), nullptr);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(problem_, "");
}

namespace
{

// Runs something with a small file system in the place of a folder, in a child process of its own mounts. The
// status of the child, or nothing where mounting is refused.
std::optional<int> status_with_disk(const std::string &folder, const std::string &options,
                                    const std::function<int()> &work)
{
    constexpr int REFUSED = 99;
    const int status = status_of_child([&] {
        const int namespaces = CLONE_NEWNS | (::geteuid() == 0 ? 0 : CLONE_NEWUSER);
        if (::unshare(namespaces) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("disk", folder.c_str(), "tmpfs", 0, options.c_str()) != 0)
            return REFUSED;
        return work();
    });
    return WIFEXITED(status) && WEXITSTATUS(status) == REFUSED ? std::nullopt : std::make_optional(status);
}

} // namespace

TEST_F(Mtd, IsNotTouchedWhenTheDiskHasNoRoomForItsMarker)
{
    ASSERT_TRUE(make_flash_folder(mtd_card::SLOT, 0));
    const std::string image = card.file("image");
    std::ofstream(image) << "another";
    const auto disk = card.file(flash_folder_path(mtd_card::SLOT, 0));
    const auto status =
        status_with_disk(disk, "nr_inodes=2", [&] { // of the folder itself, and of the file `writer`
            if (chassis_attach(card.file(""), mtd_card::SLOT) != 0)
                return 1;
            flash_part *part = mtd_card::driver().open(0, flash_access::write);
            if (part == nullptr)
                return 2;
            flash_device flash(mtd_card::driver(), part);
            flash_progress progress(0, -1, 0, 0, 1, nullptr);
            if (flash_program_image(flash, *flash_image::open(image.c_str()),
                                    flash_programming_mode::erase_and_write, progress) != BIOS_FLASH_ERR_ERASE)
                return 3;
            if (flash.set_marker() || errno != ENOSPC)
                return 4;
            return kernel.operations == 0 && !flash.is_marked() ? 0 : 5;
        });
    if (!status)
        GTEST_SKIP() << "mounting is refused here";
    EXPECT_EQ(*status, 0);
}

TEST_F(Mtd, IsReadAndNotWrittenWhenTheDiskIsReadOnly)
{
    ASSERT_TRUE(make_flash_folder(mtd_card::SLOT, 0));
    const auto disk = card.file(flash_folder_path(mtd_card::SLOT, 0));
    const auto status = status_with_disk(disk, "size=64k", [&] {
        if (chassis_attach(card.file(""), mtd_card::SLOT) != 0 || writer() == nullptr)
            return 1;
        if (::mount(nullptr, disk.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0)
            return 2;
        if (writer() != nullptr || errno != EROFS || problem_ != "slots/3/flash/primary: Read-only file system")
            return 3;
        const auto flash = reader();
        return flash != nullptr && !flash->is_marked() && kernel.operations == 0 ? 0 : 4;
    });
    if (!status)
        GTEST_SKIP() << "mounting is refused here";
    EXPECT_EQ(*status, 0);
}

// The driver of a card

TEST_F(Mtd, IsTheFlashThatTheCardsConfigurationNames)
{
    kernel.add({.name = "spare", .size_bytes = 32 << 10});
    card.name_flash(1, "spare");
    const flash_driver &driver = mtd_card::driver();
    for (const unsigned instance : {0U, 1U}) {
        flash_part *part = driver.open(instance, flash_access::read);
        ASSERT_NE(part, nullptr) << instance;
        EXPECT_EQ(driver.geometry(part).size_bytes, instance == 0 ? 64U << 10 : 32U << 10);
        driver.close(part);
    }
}

TEST_F(Mtd, IsNotThereWithoutAName)
{
    EXPECT_EQ(mtd_card::driver().open(1, flash_access::read), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(syslog(), "") << "a card with one flash is no problem";
}

TEST_F(Mtd, IsNotOpenedUnderTheNameOfTheOtherFlash)
{
    card.name_flash(1, "bios");
    for (const unsigned instance : {0U, 1U}) {
        EXPECT_EQ(mtd_card::driver().open(instance, flash_access::write), nullptr);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(count_of(syslog(), "primary flash: both flashes have the name \"bios\" in flash_names\n"), 1U);
    EXPECT_EQ(count_of(syslog(), "alternate flash: both flashes have the name"), 1U);
}

TEST_F(Mtd, IsNotOpenedUnderAnEmptyName)
{
    card.name_flash(0, "");
    EXPECT_EQ(mtd_card::driver().open(0, flash_access::read), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(count_of(syslog(), "primary flash: its name in flash_names is empty\n"), 1U);
}

// What opens it again every second does not fill the log.
TEST_F(Mtd, TellsOnceWhyItIsNotOpened)
{
    kernel.remove(0);
    for (unsigned again = 0; again < 3; ++again) {
        EXPECT_EQ(mtd_card::driver().open(0, flash_access::read), nullptr);
        EXPECT_EQ(errno, ENOENT);
    }
    const std::string line = "slot 3 severity 3 primary flash: no MTD has the name \"bios\"\n";
    EXPECT_EQ(count_of(syslog(), line), 1U) << syslog();
    kernel.add({.name = "bios"});
    mtd_card::driver().close(mtd_card::driver().open(0, flash_access::read));
    kernel.remove(1);
    EXPECT_EQ(mtd_card::driver().open(0, flash_access::read), nullptr);
    EXPECT_EQ(count_of(syslog(), line), 2U) << "it was there meanwhile";
}
