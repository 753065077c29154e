// Which paths of a message may stand in a command line.
#include "harmless_path.h"

#include <string>

#include <gtest/gtest.h>

namespace
{

bool is_letter_or_digit(int character)
{
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9');
}

TEST(HarmlessPath, IsMadeOfLettersDigitsAndTenMarks)
{
    const std::string marks = "/._-+:@,=%";
    for (int character = 1; character < 256; ++character) {
        const char letter = static_cast<char>(character);
        const bool harmless = is_letter_or_digit(character) || marks.find(letter) != std::string::npos;
        EXPECT_EQ(is_harmless_path((std::string("/a") + letter + "b").c_str()), harmless) << character;
        EXPECT_EQ(is_harmless_path((std::string("/ab") + letter).c_str()), harmless) << character;
    }
}

TEST(HarmlessPath, DoesNotBeginWithADash)
{
    EXPECT_FALSE(is_harmless_path("-"));
    EXPECT_FALSE(is_harmless_path("-rf"));
    EXPECT_TRUE(is_harmless_path("a-rf"));
    EXPECT_TRUE(is_harmless_path("/-rf"));
}

TEST(HarmlessPath, IsNotEmpty)
{
    EXPECT_FALSE(is_harmless_path(""));
}

TEST(HarmlessFileName, IsMadeOfLettersDigitsAndFourMarks)
{
    const std::string marks = "._-+";
    for (int character = 1; character < 256; ++character) {
        const char letter = static_cast<char>(character);
        const bool harmless = is_letter_or_digit(character) || marks.find(letter) != std::string::npos;
        EXPECT_EQ(is_harmless_file_name((std::string("a") + letter).c_str()), harmless) << character;
    }
}

TEST(HarmlessFileName, BeginsWithNeitherADotNorADash)
{
    for (const char *name : {"", ".", "..", ".a", "-a"})
        EXPECT_FALSE(is_harmless_file_name(name)) << name;
    EXPECT_TRUE(is_harmless_file_name("a.-"));
}

} // namespace
