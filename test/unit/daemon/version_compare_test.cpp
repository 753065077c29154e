// Parsing and comparing version texts, and comparing an image with a flash.
#include "version_compare.h"

#include <cerrno>

#include "daemon_test.h"
#include "random_input.h"

namespace
{

struct parsed_version {
    std::int32_t status;
    std::int32_t number[3];
};

parsed_version parse(const std::string &text)
{
    parsed_version version{0, {-9, -9, -9}};
    version.status = str_to_ver(text.c_str(), version.number);
    return version;
}

void expect_numbers(const std::string &text, std::int32_t major, std::int32_t minor, std::int32_t patch)
{
    const parsed_version version = parse(text);
    EXPECT_EQ(version.status, 0) << text;
    EXPECT_EQ(version.number[0], major) << text;
    EXPECT_EQ(version.number[1], minor) << text;
    EXPECT_EQ(version.number[2], patch) << text;
}

TEST(StrToVer, GivesTheThreeNumbers)
{
    expect_numbers("v3.5.0(09/17/12)", 3, 5, 0);
    expect_numbers("  v3.5.0(09/17/12)", 3, 5, 0);
    expect_numbers("v 1. 2. 34(09/17/2012)", 1, 2, 34);
    expect_numbers("v9999.1234.4321()", 9999, 1234, 4321);
}

TEST(StrToVer, StartsAtTheFirstV)
{
    expect_numbers("BIOS v2.1.3(date)", 2, 1, 3);
    expect_numbers("vv2.1.3(date)", 0, 1, 3);
    expect_numbers("revision 1.2.3(x)", 0, 2, 3);
}

TEST(StrToVer, TakesFieldsWithoutDigitsForZero)
{
    expect_numbers("vA.B.C(", 0, 0, 0);
    expect_numbers("v..(", 0, 0, 0);
}

TEST(StrToVer, RefusesATextWithoutOneOfItsMarks)
{
    for (const char *text : {"", "3.5.0(x)", "v", "v3", "v3.5", "v3.5.0", "v3.5.0)", "v(3.5", "V3.5.0(x)"})
        EXPECT_EQ(parse(text).status, -1) << text;
}

TEST(StrToVer, TakesAParenthesisAfterTheSecondPointOnly)
{
    EXPECT_EQ(parse("(v3.5.0").status, -1);
    expect_numbers("(v3.5.0(x)", 3, 5, 0);
}

TEST(StrToVer, KeepsFourDigitsOfALongNumber)
{
    expect_numbers("v123456789.98765.11112222333344445555(x)", 1234, 9876, 1111);
}

TEST(StrToVer, ReadsNoFurtherThanTheTextForRandomTexts)
{
    random_input random;
    SCOPED_TRACE(random.trace());
    const std::string alphabet = "v.(0123456789 -x)";
    for (int round = 0; round < 20000; ++round) {
        std::string text(random.below(41), ' ');
        for (char &character : text)
            character = alphabet[random.below(alphabet.size())];
        const std::size_t v = text.find('v');
        const std::size_t first = v == std::string::npos ? v : text.find('.', v + 1);
        const std::size_t second = first == std::string::npos ? first : text.find('.', first + 1);
        const bool well_formed = second != std::string::npos && text.find('(', second + 1) != std::string::npos;
        ASSERT_EQ(parse(text).status, well_formed ? 0 : -1) << '"' << text << '"';
    }
}

std::int32_t compare(std::initializer_list<std::int32_t> a, std::initializer_list<std::int32_t> b)
{
    return compare_bios_version(a.begin(), b.begin());
}

TEST(CompareBiosVersion, IsDecidedByTheFirstNumberThatDiffers)
{
    EXPECT_EQ(compare({2, 0, 0}, {1, 9, 9}), 1);
    EXPECT_EQ(compare({1, 9, 9}, {2, 0, 0}), -1);
    EXPECT_EQ(compare({1, 3, 0}, {1, 2, 9}), 1);
    EXPECT_EQ(compare({1, 2, 9}, {1, 3, 0}), -1);
    EXPECT_EQ(compare({1, 2, 4}, {1, 2, 3}), 1);
    EXPECT_EQ(compare({1, 2, 3}, {1, 2, 4}), -1);
}

TEST(CompareBiosVersion, TakesEqualForNotNewer)
{
    EXPECT_EQ(compare({1, 2, 3}, {1, 2, 3}), -1);
}

TEST(CompareBiosVersion, ComparesSigned)
{
    EXPECT_EQ(compare({-1, 0, 0}, {1, 0, 0}), -1);
    EXPECT_EQ(compare({0, 0, 1}, {0, 0, -1}), 1);
}

TEST(CommonCompare, ComparesNumbersAndNotTexts)
{
    EXPECT_EQ(common_compare_bios_versions("v3.10.0(date)", "v3.9.0(date)"), 1);
    EXPECT_EQ(common_compare_bios_versions("v3.9.0(date)", "v3.10.0(date)"), -1);
}

TEST(CommonCompare, IgnoresTheDate)
{
    EXPECT_EQ(common_compare_bios_versions("v3.5.0(x)", "v3.5.0(y)"), -1);
    EXPECT_EQ(common_compare_bios_versions("v3.5.0(y)", "v3.5.0(x)"), -1);
}

TEST(CommonCompare, TakesAMalformedTextOnEitherSideForNotNewer)
{
    EXPECT_EQ(common_compare_bios_versions("v9.9.9", "v1.0.0(x)"), -1);
    EXPECT_EQ(common_compare_bios_versions("v9.9.9(x)", "v1.0.0"), -1);
    EXPECT_EQ(common_compare_bios_versions("", ""), -1);
}

using compare_operation = std::int32_t (*)(std::int32_t, std::uint32_t, const char *);

struct compare_case {
    compare_operation operation;
    std::string prefix; // of the log line
    std::string flash;
};

void PrintTo(const compare_case &chosen, std::ostream *out)
{
    *out << chosen.prefix;
}

class VersionCompare : public daemon_test, public testing::WithParamInterface<compare_case>
{
protected:
    std::int32_t compare(const std::string &image, const std::string &flash)
    {
        platform().version_texts["get_bios_src_version"] = image;
        platform().version_texts["get_bios_flash_version, " + GetParam().flash] = flash;
        return compare_operation_result();
    }
    std::int32_t compare_operation_result() { return GetParam().operation(7, 11, "/bootflash/.tmpbios.bin"); }
};

TEST_P(VersionCompare, LetsANewerImageBeProgrammed)
{
    EXPECT_EQ(compare("v3.6.0(01/01/13)", "v3.5.0(09/17/12)"), 0);
    EXPECT_EQ(
        platform().story({"get_bios_src_version", "get_bios_flash_version", "log"}),
        (lines{"get_bios_src_version(\"/bootflash/.tmpbios.bin\", 0)",
               "log( bios image src version = v3.6.0(01/01/13)\\n)",
               "get_bios_flash_version(" + GetParam().flash + ")",
               "log(" + GetParam().prefix + ": img=v3.6.0(01/01/13)= bios=v3.5.0(09/17/12)= comp-val=1\\n)"}));
}

TEST_P(VersionCompare, FindsAnEqualOlderOrMalformedImageNotNewer)
{
    EXPECT_EQ(compare("v3.5.0(x)", "v3.5.0(y)"), 0x40710001);
    EXPECT_EQ(compare("v3.4.9(x)", "v3.5.0(y)"), 0x40710001);
    EXPECT_EQ(compare("no version", "v3.5.0(y)"), 0x40710001);
    EXPECT_EQ(compare("v3.5.0(x)", ""), 0x40710001);
    EXPECT_EQ(platform().logs().back(), GetParam().prefix + ": img=v3.5.0(x)= bios== comp-val=-1\\n");
}

TEST_P(VersionCompare, TellsAnImageWithoutVersionFromOneThatCannotBeRead)
{
    platform().next_result("get_bios_src_version", {-61, 0});
    EXPECT_EQ(compare_operation_result(), 0x4071000f);
    for (const int status : {-22, -5, 1}) {
        platform().next_result("get_bios_src_version", {status, 0});
        EXPECT_EQ(compare_operation_result(), 0x4071001c) << status;
    }
    EXPECT_EQ(platform().calls("get_bios_flash_version"), lines{});
}

TEST_P(VersionCompare, TellsAFlashWithoutVersionFromOneThatCannotBeRead)
{
    platform().next_result("get_bios_flash_version", {-61, 0});
    EXPECT_EQ(compare_operation_result(), 0x40710025);
    for (const int status : {-22, -5, 1}) {
        platform().next_result("get_bios_flash_version", {status, 0});
        EXPECT_EQ(compare_operation_result(), 0x40710026) << status;
    }
}

TEST_P(VersionCompare, CutsALongPath)
{
    const std::string path = "/" + std::string(1000, 'x');
    (void)GetParam().operation(7, 11, path.c_str());
    const std::string call = platform().calls("get_bios_src_version").at(0);
    EXPECT_EQ(call, "get_bios_src_version(\"" + path.substr(0, 255) + "\", 0)");
}

INSTANTIATE_TEST_SUITE_P(EveryOperation, VersionCompare,
                         testing::Values(compare_case{std_version_compare_func, "pri", "0"},
                                         compare_case{alt_version_compare_func, "alt", "1"}),
                         [](const auto &instance) { return instance.param.prefix; });

} // namespace
