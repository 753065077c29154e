// The flash device: its NOR manners, its owner, its faults on demand, and how it is made.
#include "flash_fixture.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>

#include "flash_timing.h"

namespace
{

constexpr std::uint32_t SECTOR = SMALL_FLASH.sector_bytes;
constexpr std::uint32_t PAGE = SMALL_FLASH.page_bytes;

class FlashDevice : public chassis_flash_fixture
{
};
class FlashFaults : public chassis_flash_fixture
{
};
class FlashCreate : public chassis_flash_fixture
{
};

} // namespace

// Making a flash

TEST_F(FlashCreate, MakesAnErasedFlash)
{
    create_flash();
    EXPECT_EQ(flash_contents().size(), SMALL_FLASH.size_bytes);
    EXPECT_TRUE(all_are(flash_contents(), 0xff));
    EXPECT_EQ(text_of_flash_file("size_bytes"), "65536\n");
    EXPECT_EQ(text_of_flash_file("sector_bytes"), "4096\n");
    EXPECT_EQ(text_of_flash_file("page_bytes"), "256\n");
    EXPECT_EQ(text_of_flash_file("timing"), "0\n");
    EXPECT_FALSE(is_marked());
}

TEST_F(FlashCreate, PutsTheTwoFlashesOfASlotIntoTheirFolders)
{
    create_flash(0);
    create_flash(1);
    EXPECT_TRUE(std::filesystem::exists(dir + "/slots/3/flash/primary/data"));
    EXPECT_TRUE(std::filesystem::exists(dir + "/slots/3/flash/alternate/data"));
}

TEST_F(FlashCreate, TakesFirstContentsFromAFile)
{
    const flash_bytes image = random_bytes(5000);
    create_flash(0, SMALL_FLASH, image);
    EXPECT_EQ(flash_contents(), followed_by_erased(image, SMALL_FLASH.size_bytes));
}

TEST_F(FlashCreate, TakesAnImageThatFillsTheFlash)
{
    const flash_bytes image = random_bytes(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, image);
    EXPECT_EQ(flash_contents(), image);
}

TEST_F(FlashCreate, LeavesNoFlashForAnImageThatIsTooLarge)
{
    const std::string image = file_of("large", random_bytes(SMALL_FLASH.size_bytes + 1));
    EXPECT_EQ(nor_file_create(TEST_SLOT, 0, SMALL_FLASH, image), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(open_flash(), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FlashCreate, LeavesAFlashThatIsThereAsItIs)
{
    const flash_bytes image = random_bytes(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, image);
    EXPECT_EQ(nor_file_create(TEST_SLOT, 0, SMALL_FLASH), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(flash_contents(), image);
}

TEST_F(FlashCreate, RefusesAGeometryThatDoesNotFitTogether)
{
    const flash_geometry refused[] = {{0, 4096, 256},     {65536, 0, 256},    {65536, 4096, 0},
                                      {65536, 4000, 256}, {65537, 4096, 256}, {1u << 30, 4096, 256}};
    for (const flash_geometry &geometry : refused) {
        EXPECT_EQ(nor_file_create(TEST_SLOT, 0, geometry), -1) << geometry.size_bytes;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(nor_file_create(TEST_SLOT, 2, SMALL_FLASH), -1);
    EXPECT_EQ(errno, EINVAL);
}

// Opening

TEST_F(FlashDevice, IsRefusedWhenItIsNotThere)
{
    EXPECT_EQ(open_flash(), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(open_flash(flash_access::read, 2), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(FlashDevice, IsRefusedWhenItsFilesContradictEachOther)
{
    create_flash();
    write_flash_file("size_bytes", "131072\n");
    EXPECT_EQ(open_flash(), nullptr);
    EXPECT_EQ(errno, EINVAL);
    write_flash_file("size_bytes", "65536\n");
    write_flash_file("sector_bytes", "many\n");
    EXPECT_EQ(open_flash(), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(FlashDevice, HasOneWriterInAProcess)
{
    create_flash();
    auto writer = open_flash();
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(open_flash(), nullptr);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_NE(open_flash(flash_access::read), nullptr);
    writer.reset();
    EXPECT_NE(open_flash(), nullptr);
}

TEST_F(FlashDevice, HasOneWriterAmongProcesses)
{
    create_flash();
    const auto writer = open_flash();
    const int status = status_of_child([this] { return open_flash() == nullptr && errno == EBUSY ? 0 : 1; });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(FlashDevice, IsFreeAgainWhenItsWriterIsKilled)
{
    create_flash();
    const int status = status_of_child([this] {
        const auto writer = open_flash();
        return writer != nullptr ? ::kill(::getpid(), SIGKILL) : 1;
    });
    EXPECT_TRUE(was_killed(status));
    EXPECT_NE(open_flash(), nullptr);
}

// Erasing, programming, reading

TEST_F(FlashDevice, ErasesOneWholeSector)
{
    const flash_bytes before = random_bytes(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, before);
    ASSERT_TRUE(open_flash()->erase(2));
    flash_bytes expected = before;
    std::fill_n(expected.begin() + 2 * SECTOR, SECTOR, 0xff);
    EXPECT_EQ(flash_contents(), expected);
}

TEST_F(FlashDevice, OnlyClearsBitsWhenItPrograms)
{
    const flash_bytes before = random_bytes(SMALL_FLASH.size_bytes);
    const flash_bytes page = random_bytes(PAGE);
    create_flash(0, SMALL_FLASH, before);
    ASSERT_TRUE(open_flash()->program(3 * PAGE, page.data(), PAGE));
    flash_bytes expected = before;
    for (std::size_t index = 0; index < PAGE; ++index)
        expected[3 * PAGE + index] = before[3 * PAGE + index] & page[index];
    EXPECT_EQ(flash_contents(), expected);
}

TEST_F(FlashDevice, ProgramsAPartOfAPage)
{
    create_flash();
    const flash_bytes bytes = random_bytes(10);
    ASSERT_TRUE(open_flash()->program(PAGE - 10, bytes.data(), 10));
    EXPECT_EQ(piece_of(flash_contents(), PAGE - 10, 10), bytes);
    EXPECT_EQ(flash_contents()[PAGE], 0xff);
}

TEST_F(FlashDevice, ReadsFromAnyPlace)
{
    const flash_bytes contents = random_bytes(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, contents);
    const auto flash = open_flash(flash_access::read);
    flash_bytes found(777);
    ASSERT_TRUE(flash->read(SECTOR - 5, found.data(), 777));
    EXPECT_EQ(found, piece_of(contents, SECTOR - 5, 777));
    flash_bytes all(SMALL_FLASH.size_bytes);
    ASSERT_TRUE(flash->read(0, all.data(), SMALL_FLASH.size_bytes));
    EXPECT_EQ(all, contents);
}

TEST_F(FlashDevice, RefusesPlacesThatDoNotFit)
{
    create_flash();
    const auto flash = open_flash();
    flash_bytes bytes(2 * PAGE, 0);
    const auto refused = [](bool success) { return !success && errno == EINVAL; };
    EXPECT_TRUE(refused(flash->erase(flash->sector_count())));
    EXPECT_TRUE(refused(flash->erase(0xffffffff)));
    EXPECT_TRUE(refused(flash->program(0, bytes.data(), PAGE + 1)));
    EXPECT_TRUE(refused(flash->program(PAGE - 1, bytes.data(), 2)));
    EXPECT_TRUE(refused(flash->program(0, bytes.data(), 0)));
    EXPECT_TRUE(refused(flash->program(SMALL_FLASH.size_bytes, bytes.data(), 1)));
    EXPECT_TRUE(refused(flash->program(0xffffff00, bytes.data(), PAGE)));
    EXPECT_TRUE(refused(flash->program(PAGE, bytes.data(), 0xffffffff)));
    EXPECT_TRUE(refused(flash->read(SMALL_FLASH.size_bytes - 1, bytes.data(), 2)));
    EXPECT_TRUE(refused(flash->read(1, bytes.data(), 0xffffffff)));
    EXPECT_TRUE(refused(flash->read(0, bytes.data(), 0)));
    EXPECT_TRUE(all_are(flash_contents(), 0xff));
}

TEST_F(FlashDevice, IsNotChangedByAReader)
{
    create_flash();
    const auto flash = open_flash(flash_access::read);
    const std::uint8_t zero = 0;
    const auto refused = [](bool success) { return !success && errno == EBADF; };
    EXPECT_TRUE(refused(flash->erase(0)));
    EXPECT_TRUE(refused(flash->program(0, &zero, 1)));
    EXPECT_TRUE(refused(flash->set_marker()));
    EXPECT_TRUE(refused(flash->clear_marker()));
}

TEST_F(FlashDevice, KeepsItsProtectedSectors)
{
    const flash_bytes before = random_bytes(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, before);
    write_flash_file("protected", "1\n\n 4-6 \n15\n");
    const auto flash = open_flash();
    const std::vector<std::uint32_t> is_protected = {1, 4, 5, 6, 15};
    const std::uint8_t zero = 0;
    flash_bytes expected = before;
    for (std::uint32_t sector = 0; sector < 16; ++sector) {
        const bool refuses = std::find(is_protected.begin(), is_protected.end(), sector) != is_protected.end();
        EXPECT_EQ(flash->is_protected(sector), refuses) << sector;
        EXPECT_EQ(flash->program(sector * SECTOR, &zero, 1), !refuses) << sector;
        EXPECT_TRUE(!refuses || errno == EPERM);
        EXPECT_EQ(flash->erase(sector), !refuses) << sector;
        EXPECT_TRUE(!refuses || errno == EPERM);
        if (!refuses)
            std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(sector * SECTOR), SECTOR, 0xff);
    }
    EXPECT_EQ(flash_contents(), expected);
}

TEST_F(FlashDevice, IsNotWrittenToWhenTheListOfProtectedSectorsIsUnclear)
{
    create_flash();
    for (const char *list : {"boot\n", "3-\n", "-3\n", "5-4\n", "16\n", "3--5\n", "3 5\n", "0\n1-2-3\n"}) {
        write_flash_file("protected", list);
        EXPECT_EQ(open_flash(), nullptr) << list;
        EXPECT_EQ(errno, EINVAL) << list;
        EXPECT_NE(open_flash(flash_access::read), nullptr) << list;
    }
}

TEST_F(FlashDevice, KeepsWhatWasWrittenWhenItsWriterIsKilled)
{
    create_flash();
    const flash_bytes page = random_bytes(PAGE);
    const int status = status_of_child([&] {
        const auto flash = open_flash();
        if (!flash->program(0, page.data(), PAGE))
            return 1;
        return ::kill(::getpid(), SIGKILL);
    });
    ASSERT_TRUE(was_killed(status));
    EXPECT_EQ(piece_of(flash_contents(), 0, PAGE), page);
}

TEST_F(FlashDevice, IsMarkedAndUnmarked)
{
    create_flash();
    const auto flash = open_flash();
    EXPECT_FALSE(flash->is_marked());
    ASSERT_TRUE(flash->set_marker());
    ASSERT_TRUE(flash->set_marker());
    EXPECT_TRUE(is_marked());
    EXPECT_TRUE(open_flash(flash_access::read)->is_marked());
    ASSERT_TRUE(flash->clear_marker());
    ASSERT_TRUE(flash->clear_marker());
    EXPECT_FALSE(is_marked());
    EXPECT_FALSE(flash->is_marked());
}

TEST_F(FlashDevice, NotesWhatNoDriverMayAsk)
{
    create_flash();
    const auto flash = open_flash();
    const flash_bytes page = random_bytes(PAGE);
    ASSERT_TRUE(flash->program(PAGE, page.data(), PAGE));
    ASSERT_TRUE(flash->program(PAGE, page.data(), PAGE)) << "the same bytes again set none";
    const flash_bytes zeros(PAGE, 0);
    ASSERT_TRUE(flash->program(PAGE, zeros.data(), PAGE));
    EXPECT_EQ(violations(), "");

    EXPECT_TRUE(flash->program(PAGE, page.data(), PAGE));
    EXPECT_FALSE(flash->erase(flash->sector_count()));
    EXPECT_FALSE(flash->program(PAGE + 1, page.data(), PAGE));
    std::uint8_t byte = 0;
    EXPECT_FALSE(flash->read(SMALL_FLASH.size_bytes, &byte, 1));
    EXPECT_FALSE(open_flash(flash_access::read)->erase(2));
    EXPECT_EQ(violations(), "program of bytes that are not erased at 0x100\n"
                            "erase of a sector that is not there at 0x10\n"
                            "program of a place that is no part of a page at 0x101\n"
                            "read of a place that is not there at 0x10000\n"
                            "erase by a reader at 0x2000\n");
}

TEST_F(FlashDevice, CountsItsWearOverProcesses)
{
    create_flash();
    const int status = status_of_child([this] {
        const auto flash = open_flash();
        const std::uint8_t zero = 0;
        return flash->erase(0) && flash->erase(1) && flash->program(0, &zero, 1) ? 0 : 1;
    });
    ASSERT_EQ(status, 0);
    std::uint8_t byte = 0;
    ASSERT_TRUE(open_flash(flash_access::read)->read(0, &byte, 1));
    EXPECT_EQ(text_of_flash_file("wear"), "erases 2\nprograms 1\nreads 1\n");
}

TEST_F(FlashDevice, TakesTheTimeOfARealPartWhenTold)
{
    create_flash();
    write_flash_file("timing", "1\n");
    const auto flash = open_flash();
    const flash_bytes page(PAGE, 0);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(flash->erase(0));
    for (std::uint32_t index = 0; index < 100; ++index)
        ASSERT_TRUE(flash->program(index % 16 * PAGE, page.data(), PAGE));
    const auto taken = std::chrono::steady_clock::now() - begin;
    const auto expected = std::chrono::nanoseconds(FLASH_SECTOR_ERASE_NS + 100 * FLASH_PAGE_PROGRAM_NS);
    EXPECT_GE(taken, expected - std::chrono::milliseconds(10)); // the last lump is not slept
}

// Faults

TEST_F(FlashFaults, FailTheNthOperationOnce)
{
    create_flash(0, SMALL_FLASH, random_bytes(SMALL_FLASH.size_bytes));
    set_fault("fail erase 3");
    const auto flash = open_flash();
    EXPECT_TRUE(flash->erase(0));
    EXPECT_TRUE(flash->erase(1));
    const flash_bytes before = flash_contents();
    EXPECT_FALSE(flash->erase(2));
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(flash_contents(), before);
    EXPECT_TRUE(flash->erase(2));
    EXPECT_FALSE(std::filesystem::exists(flash_file("faults")));
}

TEST_F(FlashFaults, CountAcrossProcesses)
{
    create_flash();
    set_fault("fail erase 3");
    EXPECT_EQ(status_of_child([this] { return open_flash()->erase(0) ? 0 : 1; }), 0);
    EXPECT_EQ(text_of_flash_file("faults"), "fail erase 2\n");
    EXPECT_EQ(status_of_child([this] { return open_flash()->erase(0) ? 0 : 1; }), 0);
    EXPECT_FALSE(open_flash()->erase(0));
    EXPECT_TRUE(open_flash()->erase(0));
}

TEST_F(FlashFaults, HappenAsManyTimesInARowAsCounted)
{
    create_flash();
    set_fault("fail program 2 3");
    const auto flash = open_flash();
    const std::uint8_t byte = 0;
    std::string told;
    for (int index = 0; index < 6; ++index)
        told += flash->program(0, &byte, 1) ? '+' : '-';
    EXPECT_EQ(told, "+---++");
}

TEST_F(FlashFaults, StayWhenTheyHappenAlways)
{
    create_flash();
    const auto flash = open_flash();
    set_fault("fail read always"); // while the device is open
    std::uint8_t byte = 0;
    for (int index = 0; index < 5; ++index)
        EXPECT_FALSE(flash->read(0, &byte, 1));
    EXPECT_EQ(text_of_flash_file("faults"), "fail read always\n");
    std::filesystem::remove(flash_file("faults"));
    EXPECT_TRUE(flash->read(0, &byte, 1));
}

TEST_F(FlashFaults, AreSeenAtTheNextSectorWhileOneIsProgrammed)
{
    create_flash();
    const auto flash = open_flash();
    const std::uint8_t byte = 0;
    EXPECT_TRUE(flash->program(0, &byte, 1));
    set_fault("fail program 1");
    EXPECT_TRUE(flash->program(PAGE, &byte, 1));
    EXPECT_FALSE(flash->program(SECTOR, &byte, 1));
}

TEST_F(FlashFaults, ConcernOnlyTheirOperation)
{
    create_flash();
    set_fault("fail erase always");
    const auto flash = open_flash();
    std::uint8_t byte = 0;
    EXPECT_TRUE(flash->program(0, &byte, 1));
    EXPECT_TRUE(flash->read(0, &byte, 1));
    EXPECT_TRUE(flash->set_marker());
    EXPECT_FALSE(flash->erase(0));
}

TEST_F(FlashFaults, HappenOneAfterTheOtherWhenDueTogether)
{
    create_flash(0, SMALL_FLASH, flash_bytes(SMALL_FLASH.size_bytes, 0));
    set_fault("fail erase 1\nlie erase 1");
    const auto flash = open_flash();
    EXPECT_FALSE(flash->erase(0));
    EXPECT_TRUE(flash->erase(0));
    EXPECT_EQ(flash_contents()[0], 0);
    EXPECT_TRUE(flash->erase(0));
    EXPECT_EQ(flash_contents()[0], 0xff);
}

TEST_F(FlashFaults, LieAboutEachKindOfOperation)
{
    const flash_bytes before = random_bytes(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, before);
    set_fault("lie erase always\nlie program always\nlie read always\nlie marker always");
    const auto flash = open_flash();
    std::uint8_t byte = 0;
    EXPECT_TRUE(flash->erase(0));
    EXPECT_TRUE(flash->program(0, &byte, 1));
    EXPECT_TRUE(flash->set_marker());
    EXPECT_FALSE(is_marked());
    byte = static_cast<std::uint8_t>(~before[0]);
    EXPECT_TRUE(flash->read(0, &byte, 1));
    EXPECT_EQ(byte, static_cast<std::uint8_t>(~before[0]));
    EXPECT_EQ(flash_contents(), before);
}

TEST_F(FlashFaults, FailTheMarkerWithoutLeavingOne)
{
    create_flash();
    set_fault("fail marker 1");
    const auto flash = open_flash();
    EXPECT_FALSE(flash->set_marker());
    EXPECT_EQ(errno, EIO);
    EXPECT_FALSE(is_marked());
    EXPECT_TRUE(flash->set_marker());
    set_fault("fail marker 1");
    EXPECT_FALSE(flash->clear_marker());
    EXPECT_TRUE(is_marked());
}

TEST_F(FlashFaults, StopTheProcessBeforeTheOperation)
{
    const flash_bytes before = random_bytes(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, before);
    set_fault("stop erase 2");
    const int status = status_of_child([this] {
        const auto flash = open_flash();
        (void)flash->erase(0);
        (void)flash->erase(1);
        return 0;
    });
    EXPECT_TRUE(was_killed(status));
    EXPECT_TRUE(all_are(piece_of(flash_contents(), 0, SECTOR), 0xff));
    EXPECT_EQ(piece_of(flash_contents(), SECTOR, SECTOR), piece_of(before, SECTOR, SECTOR));
    EXPECT_EQ(wear().erases, 2u);
    EXPECT_TRUE(open_flash()->erase(1)) << "the rule has happened";
}

TEST_F(FlashFaults, TearAnEraseInTheMiddle)
{
    const flash_bytes before = random_bytes(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, before);
    set_fault("torn erase 1");
    EXPECT_TRUE(was_killed(status_of_child([this] { return open_flash()->erase(3); })));
    flash_bytes expected = before;
    std::fill_n(expected.begin() + 3 * SECTOR, SECTOR / 2, 0xff);
    EXPECT_EQ(flash_contents(), expected);
}

TEST_F(FlashFaults, TearAProgramInTheMiddle)
{
    create_flash();
    set_fault("torn program 1");
    const flash_bytes page(PAGE, 0);
    EXPECT_TRUE(was_killed(status_of_child([&] { return open_flash()->program(PAGE, page.data(), PAGE); })));
    flash_bytes expected(SMALL_FLASH.size_bytes, 0xff);
    std::fill_n(expected.begin() + PAGE, PAGE / 2, 0);
    EXPECT_EQ(flash_contents(), expected);
}

TEST_F(FlashFaults, KeepRemarksAndMarkWhatIsNoRule)
{
    create_flash();
    set_fault("# a remark\n\nfail erase 2\nfail erase 0\nbreak erase 1\nfail everything 1\nfail read -1\nfail read "
              "1 2 3\n"
              "none erase 1\nfail read 99999999999");
    EXPECT_TRUE(open_flash()->erase(0));
    EXPECT_EQ(text_of_flash_file("faults"), "# a remark\n\nfail erase 1\n# not understood: fail erase 0\n"
                                            "# not understood: break erase 1\n# not understood: fail everything 1\n"
                                            "# not understood: fail read -1\n# not understood: fail read 1 2 3\n"
                                            "# not understood: none erase 1\n"
                                            "# not understood: fail read 99999999999\n");
    EXPECT_FALSE(open_flash()->erase(0));
}

TEST_F(FlashFaults, MayComeFromElsewhere)
{
    create_flash();
    const auto flash = open_flash();
    std::vector<flash_operation> asked;
    flash->set_fault_source([&](flash_operation operation, std::uint32_t sector) {
        EXPECT_EQ(sector, operation == flash_operation::marker ? 0u : 3u);
        asked.push_back(operation);
        return asked.size() == 2 ? flash_fault::fail : flash_fault::none;
    });
    std::uint8_t byte = 0;
    EXPECT_TRUE(flash->set_marker());
    EXPECT_FALSE(flash->erase(3));
    EXPECT_TRUE(flash->program(3 * SECTOR + 300, &byte, 1));
    EXPECT_TRUE(flash->read(3 * SECTOR + 300, &byte, 1));
    EXPECT_EQ(asked, (std::vector<flash_operation>{flash_operation::marker, flash_operation::erase,
                                                   flash_operation::program, flash_operation::read}));
}
