// Faults of a flash that go on: operations that are done by half or wrong, faults at random, and processes that
// stand still or end after the operation.
#include "flash_fixture.h"

#include <algorithm>
#include <bit>
#include <csignal>
#include <cstddef>

namespace
{

constexpr std::uint32_t SECTOR = SMALL_FLASH.sector_bytes;
constexpr std::uint32_t PAGE = SMALL_FLASH.page_bytes;

// The bits in which two pieces differ.
unsigned distance(const flash_bytes &one, const flash_bytes &other)
{
    unsigned bits = 0;
    for (std::size_t index = 0; index < one.size(); ++index)
        bits += static_cast<unsigned>(std::popcount(static_cast<unsigned>(one[index] ^ other[index])));
    return bits;
}

class FaultyDevice : public chassis_flash_fixture
{
};

class RandomFaults : public FaultyDevice
{
protected:
    // Whether each of many reads failed.
    std::string story(const std::string &rule, int reads = 2000)
    {
        set_fault(rule);
        std::string told;
        std::uint8_t byte = 0;
        for (int index = 0; index < reads; ++index)
            told += open_flash(flash_access::read)->read(0, &byte, 1) ? '+' : '-';
        return told;
    }
    static std::ptrdiff_t failures(const std::string &story) { return std::count(story.begin(), story.end(), '-'); }
};

} // namespace

TEST_F(FaultyDevice, StopTheProcessAfterTheOperation)
{
    create_flash();
    set_fault("after program 1");
    const flash_bytes page(PAGE, 0);
    EXPECT_TRUE(was_killed(status_of_child([&] { return open_flash()->program(PAGE, page.data(), PAGE); })));
    EXPECT_TRUE(all_are(piece_of(flash_contents(), PAGE, PAGE), 0));
    set_fault("after marker 1");
    EXPECT_TRUE(was_killed(status_of_child([&] { return open_flash()->set_marker() ? 0 : 1; })));
    EXPECT_TRUE(is_marked());
}

TEST_F(FaultyDevice, HoldTheProcessUntilItIsContinuedAndDies)
{
    create_flash(0, SMALL_FLASH, random_bytes(SMALL_FLASH.size_bytes));
    set_fault("torn erase 2 hold");
    const pid_t child = ::fork();
    if (child == 0) {
        const auto flash = open_flash();
        ::_exit(flash->erase(0) && flash->erase(1) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, WUNTRACED), child);
    ASSERT_TRUE(WIFSTOPPED(status));
    EXPECT_TRUE(all_are(piece_of(flash_contents(), SECTOR, SECTOR / 2), 0xff));
    EXPECT_FALSE(all_are(piece_of(flash_contents(), SECTOR + SECTOR / 2, SECTOR / 2), 0xff));
    EXPECT_EQ(open_flash(), nullptr) << "it still has the flash";
    EXPECT_EQ(::kill(child, SIGCONT), 0);
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(was_killed(status));
    EXPECT_FALSE(std::filesystem::exists(flash_file("faults")));
}

TEST_F(FaultyDevice, DoOnlyAPartOfTheOperation)
{
    const flash_bytes before = random_bytes(SMALL_FLASH.size_bytes);
    create_flash(0, SMALL_FLASH, before);
    set_fault("part erase 1\npart program 1\npart read 1");
    const auto flash = open_flash();
    flash_bytes expected = before;
    EXPECT_TRUE(flash->erase(1));
    std::fill_n(expected.begin() + SECTOR, SECTOR / 2, 0xff);
    const flash_bytes page(PAGE, 0);
    EXPECT_TRUE(flash->program(0, page.data(), PAGE));
    std::fill_n(expected.begin(), PAGE / 2, 0);
    EXPECT_EQ(flash_contents(), expected);
    flash_bytes found(10, '?');
    EXPECT_TRUE(flash->read(2 * SECTOR, found.data(), 10));
    EXPECT_EQ(piece_of(found, 0, 5), piece_of(before, 2 * SECTOR, 5));
    EXPECT_TRUE(all_are(piece_of(found, 5, 5), '?'));
}

TEST_F(FaultyDevice, GetOneBitWrong)
{
    create_flash(0, SMALL_FLASH, flash_bytes(SMALL_FLASH.size_bytes, 0));
    set_fault("flip erase 1\nflip program 1 2\nflip read 1");
    const auto flash = open_flash();
    ASSERT_TRUE(flash->erase(1));
    const flash_bytes blank(SECTOR, 0xff);
    EXPECT_EQ(distance(piece_of(flash_contents(), SECTOR, SECTOR), blank), 1u);

    ASSERT_TRUE(flash->erase(2));
    for (const std::uint8_t byte :
         {std::uint8_t{0}, std::uint8_t{0xff}}) { // one bit is left, or one is written too much
        const flash_bytes page(PAGE, byte);
        const std::uint32_t place = 2 * SECTOR + (byte == 0 ? 0 : PAGE);
        ASSERT_TRUE(flash->program(place, page.data(), PAGE));
        EXPECT_EQ(distance(piece_of(flash_contents(), place, PAGE), page), 1u) << unsigned{byte};
    }
    flash_bytes found(PAGE, '?');
    ASSERT_TRUE(flash->read(0, found.data(), PAGE));
    EXPECT_EQ(distance(found, flash_bytes(PAGE, 0)), 1u);
    ASSERT_TRUE(flash->read(0, found.data(), PAGE));
    EXPECT_TRUE(all_are(found, 0)) << "the flash itself has changed";
}

TEST_F(RandomFaults, HappenAsOftenAsTheirRateSays)
{
    create_flash();
    EXPECT_NEAR(static_cast<double>(failures(story("random fail read 10% 1"))), 200, 60);
    EXPECT_NEAR(static_cast<double>(failures(story("random fail read 0.5% 2"))), 10, 10);
    EXPECT_EQ(failures(story("random fail read 100% 3", 20)), 20);
}

TEST_F(RandomFaults, AreTheSameForTheSameSeed)
{
    create_flash();
    const std::string first = story("random fail read 20% 18446744073709551615", 200);
    EXPECT_EQ(story("random fail read 20% 18446744073709551615", 200), first);
    EXPECT_NE(story("random fail read 20% 7", 200), first);
    EXPECT_NE(text_of_flash_file("faults"), "random fail read 20% 7\n") << "the seed goes on";
}

TEST_F(RandomFaults, FlipDifferentBits)
{
    create_flash();
    set_fault("random flip read 100% 5");
    const auto flash = open_flash(flash_access::read);
    flash_bytes first(PAGE), second(PAGE);
    ASSERT_TRUE(flash->read(0, first.data(), PAGE));
    ASSERT_TRUE(flash->read(0, second.data(), PAGE));
    EXPECT_EQ(distance(first, flash_bytes(PAGE, 0xff)), 1u);
    EXPECT_NE(first, second);
}

TEST_F(FaultyDevice, OfFormsThatMakeNoSenseAreMarked)
{
    create_flash();
    const std::vector<std::string> wrong = {"flip marker 1",
                                            "part marker 1",
                                            "fail read 1 hold",
                                            "stop hold",
                                            "random fail read 5% 1 2",
                                            "random fail read 5 1",
                                            "random fail read 0% 1",
                                            "random fail read 101% 1",
                                            "random fail read nan% 1",
                                            "random fail read % 1",
                                            "random stop read 5% 1",
                                            "random fail read 5% -1",
                                            "random fail read 5%",
                                            "random flip marker 5% 1",
                                            "stop read 1 hold 2",
                                            "random",
                                            "hold"};
    for (const std::string &rule : wrong) {
        set_fault(rule);
        std::uint8_t byte = 0;
        EXPECT_TRUE(open_flash()->read(0, &byte, 1));
        EXPECT_EQ(text_of_flash_file("faults"), "# not understood: " + rule + "\n");
    }
}
