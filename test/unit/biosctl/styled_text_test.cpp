// Texts of runs with a meaning: what is seen of them, their colours, and where their lines are broken.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "styled_text.h"

namespace
{

using lines = std::vector<std::string>;

lines plain_lines(const styled_text &text, std::size_t columns, std::size_t rest_column)
{
    lines plain;
    for (const styled_text &line : wrapped(text, columns, rest_column))
        plain.push_back(line.plain());
    return plain;
}

styled_text verified()
{
    return styled_text("module 2: ") + styled_text("programmed and verified", text_meaning::well) + " (result 0)";
}

} // namespace

TEST(StyledText, IsColouredByTheMeaningOfItsRuns)
{
    EXPECT_EQ(verified().plain(), "module 2: programmed and verified (result 0)");
    EXPECT_EQ(verified().coloured(), "module 2: \033[32mprogrammed and verified\033[0m (result 0)");
    EXPECT_EQ(styled_text("update", text_meaning::to_do).coloured(), "\033[33mupdate\033[0m");
    EXPECT_EQ(styled_text("unknown", text_meaning::wrong).coloured(), "\033[31munknown\033[0m");
    EXPECT_EQ(styled_text("in step").coloured(), "in step") << "words alone mean nothing";
}

TEST(StyledText, ColoursTakeNoRoom)
{
    EXPECT_EQ(verified().size(), verified().plain().size());
    EXPECT_TRUE(styled_text("", text_meaning::wrong).empty());
    EXPECT_EQ(styled_text("", text_meaning::wrong).coloured(), "");
}

TEST(StyledText, APartKeepsItsMeanings)
{
    EXPECT_EQ(verified().part(8, 12).coloured(), ": \033[32mprogrammed\033[0m");
    EXPECT_EQ(verified().part(21).coloured(), "\033[32mand verified\033[0m (result 0)");
    EXPECT_TRUE(verified().part(100).empty());
    EXPECT_TRUE(verified().part(3, 0).empty());
    for (std::size_t begin = 0; begin < 50; ++begin)
        EXPECT_EQ(verified().part(begin, 7).plain(),
                  begin < verified().size() ? verified().plain().substr(begin, 7) : "");
}

TEST(StyledText, CanBeAddedToItself)
{
    styled_text twice("a", text_meaning::well);
    twice += twice;
    EXPECT_EQ(twice.plain(), "aa");
}

TEST(WrappedText, BreaksBetweenWordsAndIndentsTheRest)
{
    EXPECT_EQ(plain_lines("biosctl: one two three", 14, 2), (lines{"biosctl: one", "  two three"}));
    EXPECT_EQ(plain_lines("  next: one two three", 14, 4), (lines{"  next: one", "    two three"}));
    EXPECT_EQ(plain_lines("1     none     a b c d e f g h", 20, 15),
              (lines{"1     none     a b c", "               d e f", "               g h"}));
    EXPECT_EQ(plain_lines("short", 14, 2), lines{"short"});
    EXPECT_EQ(plain_lines("", 14, 2), lines{""});
}

TEST(WrappedText, AColumnInTheLastQuarterIsNotKept)
{
    EXPECT_EQ(plain_lines("1     none     a b c d", 18, 15), (lines{"1     none     a b", "  c d"}));
}

TEST(WrappedText, AWordThatIsTooLongStaysWhole)
{
    EXPECT_EQ(plain_lines("see /a/path/that/is/long for it", 10, 2),
              (lines{"see", "  /a/path/that/is/long", "  for it"}));
    EXPECT_EQ(plain_lines("/a/path/that/is/long", 10, 2), lines{"/a/path/that/is/long"});
    EXPECT_EQ(plain_lines("      indented", 4, 8), lines{"      indented"});
}

TEST(WrappedText, ColoursEachPieceOfItsOwn)
{
    const auto pieces = wrapped(verified(), 20, 2);
    ASSERT_EQ(pieces.size(), 3U);
    EXPECT_EQ(pieces[0].coloured(), "module 2: \033[32mprogrammed\033[0m");
    EXPECT_EQ(pieces[1].coloured(), "  \033[32mand verified\033[0m");
    EXPECT_EQ(pieces[2].coloured(), "  (result 0)");
}

TEST(WrappedText, KeepsEveryWord)
{
    const std::string text = "0x40710009 (erase_failed): the flash could not be erased and is left unprogrammed";
    for (std::size_t columns = 0; columns < 100; ++columns) {
        std::string after;
        for (const std::string &line : plain_lines(text, columns, 2))
            after += line + " ";
        std::istringstream words_before(text), words_after(after);
        std::string word, same;
        while (words_before >> word) {
            ASSERT_TRUE(words_after >> same) << columns;
            EXPECT_EQ(word, same) << columns;
        }
        EXPECT_FALSE(words_after >> same) << columns;
    }
}
