// Tables as lines: the widths of their columns, colours, and what becomes of them on narrow terminals.
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "table.h"
#include "text_report.h"

namespace
{

using lines = std::vector<std::string>;

lines lines_of(const table &shown, std::optional<std::size_t> limit = std::nullopt)
{
    lines plain;
    for (const styled_text &line : shown.lines(limit))
        plain.push_back(line.plain());
    return plain;
}

table versions()
{
    table shown({{"SLOT"}, {"SOURCE", 16}, {"FLASH", 16}, {"VERDICT"}});
    shown.add({"5", "", "v3.1.0(02/11/11)", {"unknown", text_meaning::wrong}});
    shown.add({"27", "v10.5.0(09/17/12)", "v3.1.0(02/11/11)", {"update available", text_meaning::to_do}});
    return shown;
}

std::multiset<std::string> words_of(const lines &text)
{
    std::multiset<std::string> words;
    for (const std::string &line : text) {
        std::istringstream stream(line);
        for (std::string word; stream >> word;)
            words.insert(word);
    }
    return words;
}

} // namespace

TEST(Table, IsAsWideAsItsCellsAndItsLeastWidths)
{
    EXPECT_EQ(lines_of(versions()), (lines{"SLOT  SOURCE             FLASH             VERDICT",
                                           "5     -                  v3.1.0(02/11/11)  unknown",
                                           "27    v10.5.0(09/17/12)  v3.1.0(02/11/11)  update available"}));
}

TEST(Table, WithoutRowsIsItsHeading)
{
    EXPECT_EQ(lines_of(table({{"A", 3}, {"B"}})), lines{"A    B"});
}

TEST(Table, AlignsToTheRightToo)
{
    table shown({{"COUNT", 0, cell_alignment::right}, {"NAME"}, {"BYTES", 0, cell_alignment::right}});
    shown.add({"7", "a", "1024"});
    EXPECT_EQ(lines_of(shown), (lines{"COUNT  NAME  BYTES", "    7  a      1024"}));
}

TEST(Table, TheMeaningOfACellColoursTheCellAndNoBlanks)
{
    const auto shown = versions().lines(std::nullopt);
    EXPECT_EQ(shown[0].coloured(), shown[0].plain());
    EXPECT_EQ(shown[1].coloured(), "5     -                  v3.1.0(02/11/11)  \033[31munknown\033[0m");
    table first({{"STATE"}, {"SLOT"}});
    first.add({{"bad", text_meaning::wrong}, "1"});
    EXPECT_EQ(first.lines(std::nullopt)[1].coloured(), "\033[31mbad\033[0m    1");
}

TEST(Table, TheLastColumnGoesOnUnderItself)
{
    EXPECT_EQ(lines_of(versions(), 58), (lines{"SLOT  SOURCE             FLASH             VERDICT",
                                               "5     -                  v3.1.0(02/11/11)  unknown",
                                               "27    v10.5.0(09/17/12)  v3.1.0(02/11/11)  update",
                                               "                                           available"}));
}

TEST(Table, ColumnsThatDoNotFitStandBelowForTheHeadingAndEachRowAlike)
{
    EXPECT_EQ(lines_of(versions(), 40),
              (lines{"SLOT  SOURCE", "  FLASH             VERDICT", "5     -", "  v3.1.0(02/11/11)  unknown",
                     "27    v10.5.0(09/17/12)", "  v3.1.0(02/11/11)  update available"}));
}

TEST(Table, LosesNothingInAnyWidthAndFitsWhereItsWordsDo)
{
    const table shown = versions();
    for (std::size_t limit = 0; limit < 70; ++limit) {
        EXPECT_EQ(words_of(lines_of(shown, limit)), words_of(lines_of(shown))) << limit;
        for (const std::string &line : lines_of(shown, limit)) {
            EXPECT_TRUE(line.size() <= limit || limit < 24) << limit << ": " << line;
            EXPECT_FALSE(line.ends_with(' ')) << limit << ": " << line;
        }
    }
}

TEST(Table, GoesOnWithItsWidthsAndWithoutHeading)
{
    table shown = versions();
    shown.go_on();
    EXPECT_TRUE(lines_of(shown).empty());
    shown.add({"9", "a", "b", "c"});
    EXPECT_EQ(lines_of(shown), lines{"9     a                  b                 c"});
}

TEST(TextReport, IsLaidOutForItsOutput)
{
    const text_report report{text_line{"one two three"}, versions(),
                             text_line{styled_text("bad", text_meaning::wrong)}};
    EXPECT_EQ(text_of({report.front()}, {.columns = 8}), "one two\n  three\n");
    EXPECT_EQ(text_of(report, {}).substr(0, 22), "one two three\nSLOT  SO");
    EXPECT_TRUE(text_of(report, {.colours = true}).ends_with("\033[31mbad\033[0m\n"));
    EXPECT_EQ(text_of({}, {}), "");
    EXPECT_EQ(text_of({text_line{"  --via SLOT  Ask the daemon", 14}}, {.columns = 22}),
              "  --via SLOT  Ask the\n              daemon\n");
}
