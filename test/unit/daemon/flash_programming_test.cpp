// The program operations: attempts, pauses, warnings and what happens to the image file.
#include "flash_programming.h"

#include <cerrno>

#include "daemon_test.h"

namespace
{

constexpr char image[] = "/bootflash/.tmpbios.bin";
constexpr std::int32_t erase_failed = 0x40710009;
constexpr std::int32_t program_failed = 0x4071000c;

const lines warning{"\\nERROR: could not program flash",
                    "CAUTION: Your BIOS may be in corrupted state",
                    "         please try programming it again and DO NOT",
                    "         reboot without programming it successfully",
                    "         otherwise you have to manually take out the",
                    "         flash from the card and program it in a BIOS",
                    "         programming station."};

lines operator+(lines left, const lines &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// An extracted image, and a request from node 0x201, sap 93 to a card in slot 5.
class FlashProgramming : public daemon_test
{
protected:
    FlashProgramming() { platform().write_file(image, "image"); }

    static void flash_answers(std::initializer_list<std::int32_t> results)
    {
        for (const std::int32_t result : results)
            platform().next_result("program_bios_flash", {result, 0});
    }
    std::int32_t command(const char *path = image)
    {
        return program_bios_command(7, 0x201, 93, 5, path, 2, area, 1);
    }
    std::int32_t program(const char *path = image) { return std_bios_program(7, 11, path, 5, 0x201, 93, area, 0); }
    static std::string attempt(int number, int area_use)
    {
        return "program_bios_flash(7, 0x201, 93, 5, \"/bootflash/.tmpbios.bin\", " + std::to_string(number) +
               ", area use " + std::to_string(area_use) + ", 0)";
    }

    std::uint32_t area[16]{};
};

TEST_F(FlashProgramming, CommandPassesItsArgumentsAndReportsSuccess)
{
    EXPECT_EQ(command(), 0);
    EXPECT_EQ(platform().story({"program_bios_flash", "log"}),
              (lines{"program_bios_flash(7, 0x201, 93, 5, \"/bootflash/.tmpbios.bin\", 2, area use 0, 1)",
                     "log(Successful....ret = 0x0)",
                     "log(NOTE !! You need to reboot the card for the BIOS to take effect !!)"}));
    EXPECT_TRUE(platform().file_exists(image));
}

TEST_F(FlashProgramming, CommandRefusesAMissingImage)
{
    EXPECT_EQ(command("/bootflash/none.bin"), 0x40710003);
    EXPECT_EQ(platform().logs(), lines{"ERROR: file /bootflash/none.bin not found !!"});
    EXPECT_EQ(platform().calls("program_bios_flash"), lines{});
}

TEST_F(FlashProgramming, CommandWarnsOfACorruptedFlashForTheTwoCodesThatMeanIt)
{
    flash_answers({erase_failed, program_failed});
    EXPECT_EQ(command(), erase_failed);
    EXPECT_EQ(command(), program_failed);
    EXPECT_EQ(platform().logs(), warning + warning);
}

TEST_F(FlashProgramming, CommandPrintsTheWarningLineByLineUnderOneLineNumber)
{
    flash_answers({program_failed});
    EXPECT_EQ(command(), program_failed);
    const std::string output = printed();
    const std::string prefix = output.substr(0, output.find(": ") + 2);
    EXPECT_THAT(prefix, testing::MatchesRegex("[a-z_]+\\.cpp:[0-9]+: "));
    std::string expected;
    for (const std::string &line : warning)
        expected += prefix + (line == warning[0] ? "\nERROR: could not program flash" : line) + "\n";
    EXPECT_EQ(output, expected);
}

TEST_F(FlashProgramming, CommandPrintsNothingForAnyOtherCode)
{
    for (const std::int32_t result :
         {0x40710001, 0x40710004, 0x40710008, 0x4071000a, 0x4071000b, 0x4071000d, 9, 12, -1}) {
        flash_answers({result});
        EXPECT_EQ(command(), result);
    }
    EXPECT_EQ(platform().logs(), lines{});
}

TEST_F(FlashProgramming, CommandCutsALongPath)
{
    const std::string path = "/bootflash/" + std::string(600, 'x');
    EXPECT_EQ(command(path.c_str()), 0x40710003);
    EXPECT_THAT(platform().calls("stat"), testing::Each(testing::StrEq("stat(\"" + path.substr(0, 255) + "\")")));
}

TEST_F(FlashProgramming, SucceedsAtTheFirstAttemptAndRemovesTheImage)
{
    EXPECT_EQ(program(), 0);
    EXPECT_EQ(platform().calls("program_bios_flash"), lines{attempt(1, 0)});
    EXPECT_EQ(platform().calls("sleep"), lines{});
    EXPECT_EQ(platform().logs().back(), "REMOVE - /bootflash/.tmpbios.bin");
    EXPECT_FALSE(platform().file_exists(image));
}

TEST_F(FlashProgramming, GivesUpAfterFourAttemptsAndThreePauses)
{
    flash_answers({erase_failed, erase_failed, erase_failed, erase_failed, 0});
    EXPECT_EQ(program(), erase_failed);
    EXPECT_EQ(
        platform().story({"program_bios_flash", "sleep"}),
        (lines{attempt(1, 0), "sleep(5)", attempt(2, 1), "sleep(5)", attempt(3, 2), "sleep(5)", attempt(4, 3)}));
    EXPECT_EQ(platform().logs(), warning + warning + warning + warning + lines{"REMOVE - /bootflash/.tmpbios.bin"});
    EXPECT_FALSE(platform().file_exists(image));
}

TEST_F(FlashProgramming, RetriesUntilTheFlashIsProgrammed)
{
    flash_answers({program_failed, erase_failed, 0});
    EXPECT_EQ(program(), 0);
    EXPECT_EQ(platform().story({"program_bios_flash", "sleep"}),
              (lines{attempt(1, 0), "sleep(5)", attempt(2, 1), "sleep(5)", attempt(3, 2)}));
}

TEST_F(FlashProgramming, EndsAtTheFirstAttemptWithACodeThatMeansSomethingElse)
{
    for (const std::int32_t result : {0x40710001, 0x40710008, 0x4071000a, 0x4071000d, -1}) {
        platform().write_file(image, "image");
        flash_answers({result});
        EXPECT_EQ(program(), result) << "a second attempt would succeed";
        EXPECT_FALSE(platform().file_exists(image));
    }
    EXPECT_EQ(platform().calls("program_bios_flash").size(), 5u);
    EXPECT_EQ(platform().calls("sleep"), lines{});
    EXPECT_EQ(platform().logs(), lines(5, "REMOVE - /bootflash/.tmpbios.bin"));
}

TEST_F(FlashProgramming, EndsAtACodeThatMeansSomethingElse)
{
    flash_answers({program_failed, 0x40710001, 0});
    EXPECT_EQ(program(), 0x40710001);
    EXPECT_EQ(platform().story({"program_bios_flash", "sleep"}), (lines{attempt(1, 0), "sleep(5)", attempt(2, 1)}));
    EXPECT_FALSE(platform().file_exists(image));
}

TEST_F(FlashProgramming, ReportsAnImageThatCannotBeRemovedInPlaceOfAnyResult)
{
    for (const std::int32_t result : {0, 0x40710022}) {
        platform().next_result("unlink", {-1, EACCES});
        flash_answers({result});
        EXPECT_EQ(program(), 0x40710004);
        EXPECT_EQ(platform().logs().back(), "ERROR: could not remove - /bootflash/.tmpbios.bin, err = 13");
    }
}

TEST_F(FlashProgramming, EndsWithTheFailedRemovalOfAMissingImage)
{
    std::filesystem::remove(platform().path(image));
    EXPECT_EQ(program(), 0x40710004);
    EXPECT_EQ(platform().logs(),
              (lines{"ERROR: file /bootflash/.tmpbios.bin not found !!", "REMOVE - /bootflash/.tmpbios.bin",
                     "ERROR: could not remove - /bootflash/.tmpbios.bin, err = 2"}));
    EXPECT_EQ(platform().calls("sleep"), lines{});
}

struct chipset {
    const char *name;
    decltype(&std_ibexpeak_bios_program) program;
    int variant;
};

void PrintTo(const chipset &chosen, std::ostream *out)
{
    *out << chosen.name;
}

class ChipsetProgramming : public FlashProgramming, public testing::WithParamInterface<chipset>
{
protected:
    std::int32_t program_chipset() { return GetParam().program(7, 11, image, 5, 0x201, 93, area, 1); }
    static std::string which() { return "ibexpeak_bios_which_flash(\"pri\", " + variant() + ")"; }
    static std::string variant() { return std::to_string(GetParam().variant); }
    static std::string erase() { return "ibexpeak_bios_flash_erase(0x2" + variant() + ")"; }
    static std::string write(int attempt)
    {
        return "ibexpeak_program_bios_command_ex(\"/bootflash/.tmpbios.bin\", 0x2" + variant() +
               ", 7, 0x201, 93, 5, " + std::to_string(attempt) + ", area use " + std::to_string(attempt - 1) + ")";
    }
    static lines flash_calls()
    {
        return platform().story({"ibexpeak_bios_which_flash", "ibexpeak_bios_flash_erase",
                                 "ibexpeak_program_bios_command_ex", "sleep"});
    }
    static void fails(const char *call, int times, std::int32_t result)
    {
        for (int i = 0; i < times; ++i)
            platform().next_result(call, {result + i, 0});
    }
    const std::string source_line = "std_ibexpeak_bios_program: my_src = /bootflash/.tmpbios.bin";
};

TEST_P(ChipsetProgramming, ErasesProgramsAndRemovesTheImage)
{
    EXPECT_EQ(program_chipset(), 0);
    EXPECT_EQ(flash_calls(), (lines{which(), erase(), which(), write(1)}));
    EXPECT_EQ(
        platform().logs(),
        (lines{source_line, "Flash erase successful on 1 iteration", "Flash programming successful on 1 iteration",
               "my_src = /bootflash/.tmpbios.bin; retcode = 0", "REMOVE - /bootflash/.tmpbios.bin"}));
    EXPECT_FALSE(platform().file_exists(image));
}

TEST_P(ChipsetProgramming, RetriesTheEraseWithoutPause)
{
    fails("ibexpeak_bios_flash_erase", 2, -9);
    EXPECT_EQ(program_chipset(), 0);
    EXPECT_EQ(flash_calls(), (lines{which(), erase(), which(), erase(), which(), erase(), which(), write(1)}));
    const lines messages = platform().logs();
    EXPECT_EQ(lines(messages.begin() + 1, messages.begin() + 4),
              (lines{"Flash erase failed, retrying....", "Flash erase failed, retrying....",
                     "Flash erase successful on 3 iteration"}));
}

TEST_P(ChipsetProgramming, GivesUpAfterFiveErasesAndKeepsTheImage)
{
    fails("ibexpeak_bios_flash_erase", 5, 0x40710100);
    EXPECT_EQ(program_chipset(), 0x40710104);
    EXPECT_EQ(platform().logs(), lines{source_line} + lines(5, "Flash erase failed, retrying...."));
    EXPECT_EQ(platform().calls("ibexpeak_bios_flash_erase").size(), 5u);
    EXPECT_EQ(platform().calls("ibexpeak_program_bios_command_ex"), lines{});
    EXPECT_TRUE(platform().file_exists(image));
}

TEST_P(ChipsetProgramming, AsksForTheFlashBeforeEveryWrite)
{
    fails("ibexpeak_program_bios_command_ex", 2, -9);
    EXPECT_EQ(program_chipset(), 0);
    EXPECT_EQ(flash_calls(), (lines{which(), erase(), which(), write(1), which(), write(2), which(), write(3)}));
    EXPECT_TRUE(platform().logged("Flash programming successful on 3 iteration"));
}

TEST_P(ChipsetProgramming, GivesUpAfterFiveWritesAndKeepsTheImage)
{
    fails("ibexpeak_program_bios_command_ex", 5, 0x40710200);
    EXPECT_EQ(program_chipset(), 0x40710204);
    EXPECT_EQ(platform().logs(), lines({source_line, "Flash erase successful on 1 iteration"}) +
                                     lines(5, "Flash program failed, retrying...."));
    EXPECT_EQ(platform().calls("ibexpeak_bios_flash_erase").size(), 1u);
    EXPECT_TRUE(platform().file_exists(image));
}

TEST_P(ChipsetProgramming, SucceedsAtTheFifthEraseAndTheFifthWrite)
{
    fails("ibexpeak_bios_flash_erase", 4, -9);
    fails("ibexpeak_program_bios_command_ex", 4, -9);
    EXPECT_EQ(program_chipset(), 0);
    EXPECT_TRUE(platform().logged("Flash erase successful on 5 iteration"));
    EXPECT_TRUE(platform().logged("Flash programming successful on 5 iteration"));
}

TEST_P(ChipsetProgramming, GivesNoWarningForCodesOfACorruptedFlash)
{
    platform().every_result("ibexpeak_program_bios_command_ex", {program_failed, 0});
    EXPECT_EQ(program_chipset(), program_failed);
    EXPECT_FALSE(platform().logged(warning[1]));
}

TEST_P(ChipsetProgramming, ReportsAnImageThatCannotBeRemoved)
{
    platform().next_result("unlink", {-1, EROFS});
    EXPECT_EQ(program_chipset(), 0x40710004);
    EXPECT_EQ(platform().logs().back(), "ERROR: could not remove - /bootflash/.tmpbios.bin, err = 30");
}

INSTANTIATE_TEST_SUITE_P(EveryChipset, ChipsetProgramming,
                         testing::Values(chipset{"plain", std_ibexpeak_bios_program, 3},
                                         chipset{"qel", std_ibexpeak_qel_bios_program, 4},
                                         chipset{"tarvik_a", std_ibexpeak_tarvik_a_bios_program, 5}),
                         [](const auto &instance) { return instance.param.name; });

} // namespace
