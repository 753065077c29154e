// The table of result codes, as an operator meets it.
#include <cctype>
#include <cstring>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "bios_results.h"
#include "result_text.h"

TEST(ResultText, EveryRowIsCompleteAndItsCodeAndNameStandOnce)
{
    std::set<std::uint32_t> codes;
    std::set<std::string> names;
    for (const result_row &row : result_rows()) {
        SCOPED_TRACE(code_text(row.code));
        EXPECT_TRUE(codes.insert(row.code).second);
        EXPECT_TRUE(names.insert(row.name).second);
        for (const char *text : {row.name, row.meaning, row.flash.text, row.next.text}) {
            ASSERT_NE(text, nullptr);
            ASSERT_STRNE(text, "");
            EXPECT_NE(text[std::strlen(text) - 1], '.') << text;
        }
        for (const char *letter = row.name; *letter != '\0'; ++letter)
            EXPECT_TRUE(std::islower(static_cast<unsigned char>(*letter)) != 0 || *letter == '_') << row.name;
    }
}

TEST(ResultText, EveryCodeOfTheDaemonTheFlashAndTheLoaderHasARow)
{
    for (const std::uint32_t code :
         {0u,          0x40710001u, 0x40710003u, 0x40710004u, 0x40710005u, 0x40710006u, 0x40710007u, 0x40710008u,
          0x40710009u, 0x4071000au, 0x4071000bu, 0x4071000cu, 0x4071000fu, 0x40710010u, 0x40710012u, 0x40710013u,
          0x4071001cu, 0x40710020u, 0x40710021u, 0x40710022u, 0x40710023u, 0x40710024u, 0x40710025u, 0x40710026u,
          0x40710027u, 0x40710028u, 0x40710030u, 0x40530001u, 0x40530002u, 0x40530004u, 0x40530005u, 0x40530006u})
        EXPECT_NE(find_result(code), nullptr) << code_text(code);
}

TEST(ResultText, FindsNoRowForACodeThatIsInNone)
{
    for (const std::uint32_t code : {1u, 0x40710002u, 0x40530003u, 0x407100ffu, 0xffffffffu})
        EXPECT_EQ(find_result(code), nullptr) << code_text(code);
}

TEST(ResultText, TheCodesOfAFlashLeftUnprogrammedWarnAgainstAReboot)
{
    for (const std::uint32_t code : {0x40710009u, 0x4071000cu})
        EXPECT_EQ(describe_result(code).flash.plain(), "may be corrupted: do not reboot the card");
}

TEST(ResultText, ExitCodesFollowTheKindOfResult)
{
    EXPECT_EQ(describe_result(0x40710001).exit, 2);
    EXPECT_EQ(describe_result(0x40530002).exit, 2);
    EXPECT_EQ(describe_result(0x40710005).exit, 3);
    EXPECT_EQ(describe_result(0x40710003).exit, 3);
    EXPECT_EQ(describe_result(0x4071000a).exit, 4);
    EXPECT_EQ(describe_result(0x40710027).exit, 4);
    EXPECT_EQ(describe_result(0x40710009).exit, 1);
    EXPECT_EQ(describe_result(0x80000000 | 16).exit, 4); // EBUSY
    EXPECT_EQ(describe_result(0x80000000 | 1).exit, 4);  // EPERM
    EXPECT_EQ(describe_result(0x80000000 | 2).exit, 2);  // ENOENT
}

TEST(ResultText, AnyOtherLockResultIsTheTextOfItsErrno)
{
    const result_description result = describe_result(0x80000000 | 5);
    EXPECT_EQ(result.name, "lock_failed");
    EXPECT_NE(result.meaning.find("Input/output error"), std::string::npos);
    EXPECT_EQ(result.exit, 1);
}

TEST(ResultText, AnUnknownCodeOfTheDaemonGivesTheExitStatusAndAssumesTheWorst)
{
    const result_description result = describe_result(0x407100ff);
    EXPECT_NE(result.meaning.find("255"), std::string::npos);
    EXPECT_NE(result.flash.plain().find("do not reboot"), std::string::npos);
    EXPECT_EQ(result.exit, 1);
    EXPECT_EQ(describe_result(0x12345678).exit, 1);
}

TEST(ResultText, CodesArePrintedWithEightDigits)
{
    EXPECT_EQ(code_text(0), "0x00000000");
    EXPECT_EQ(code_text(0x4071000a), "0x4071000a");
    EXPECT_EQ(code_text(0xffffffff), "0xffffffff");
}

TEST(ResultText, AWarningAgainstARebootStandsOutAndNothingElseDoes)
{
    for (const result_row &row : result_rows()) {
        const bool warns = std::string(row.flash.text).find("do not reboot") != std::string::npos;
        EXPECT_EQ(row.flash.meaning, warns ? text_meaning::wrong : text_meaning::none) << row.name;
    }
    EXPECT_NE(describe_result(0x12345678).flash.coloured().find("\033[31m"), std::string::npos);
}

TEST(ResultText, ASentenceSaysWhetherTheCodeIsKnown)
{
    EXPECT_EQ(result_sentence(describe_result(0x40710021)).coloured(),
              "0x40710021 (write_protected): a sector of the flash that would have to change is write protected");
    EXPECT_EQ(result_sentence(describe_result(1)).coloured(),
              "0x00000001 (\033[31munknown\033[0m): no known result code");
}

TEST(ResultText, TheNextStepSaysWhereToLook)
{
    EXPECT_EQ(describe_result(0x4071000a).next,
              "wait for the other programming to end (" + place_text(look_at::states) + ") and try again");
    EXPECT_EQ(describe_result(1).next, "look at the card's log for the reason (" + place_text(look_at::log) + ")");
    for (const result_row &row : result_rows()) {
        for (const char *text : {row.next.text, row.next.rest})
            EXPECT_EQ(std::string(text).find("chassis "), std::string::npos) << row.name << ": a place, not a text";
    }
}
