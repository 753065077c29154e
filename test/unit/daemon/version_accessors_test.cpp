// Version operations of the table's rows: the calls they make and the statuses they pass on.
#include "version_accessors.h"

#include <cerrno>
#include <map>

#include "daemon_test.h"

namespace
{

using flash_getter = std::int32_t (*)(std::int32_t, std::uint32_t, std::uint32_t, char *);

struct getter_case {
    flash_getter getter;
    std::string platform_call;
    std::uint32_t flash;
};

void PrintTo(const getter_case &chosen, std::ostream *out)
{
    *out << chosen.platform_call << ", flash " << chosen.flash;
}

class FlashVersion : public daemon_test, public testing::WithParamInterface<getter_case>
{
protected:
    std::string call_with_flash() const
    {
        return GetParam().platform_call + "(" + std::to_string(GetParam().flash) + ")";
    }
    char version[128] = "as it was";
};

TEST_P(FlashVersion, IsThatOfTheFlashOfTheFunctionWhateverIsAskedFor)
{
    const auto &[getter, platform_call, flash] = GetParam();
    platform().version_texts[platform_call + ", " + std::to_string(flash)] = "v3.5.0(09/17/12)";
    EXPECT_EQ(getter(7, 11, 0, version), 0);
    EXPECT_STREQ(version, "v3.5.0(09/17/12)");
    EXPECT_EQ(getter(-1, 0xffffffff, 1, version), 0);
    EXPECT_EQ(platform().calls(platform_call), lines(2, call_with_flash()));
    EXPECT_EQ(platform().logs(), lines{});
}

TEST_P(FlashVersion, PassesThePlatformsStatusOn)
{
    for (const std::int32_t status : {-61, -22, -5, 3}) {
        platform().next_result(GetParam().platform_call, {status, 0});
        EXPECT_EQ(GetParam().getter(7, 11, 1, version), status);
    }
    EXPECT_STREQ(version, "as it was");
}

INSTANTIATE_TEST_SUITE_P(
    EveryGetter, FlashVersion,
    testing::Values(
        getter_case{std_get_flash_version_func, "get_bios_flash_version", 0},
        getter_case{alt_get_flash_version_func, "get_bios_flash_version", 1},
        getter_case{std_get_ibexpeak_flash_version_func, "get_ibexpeak_bios_flash_version", 0},
        getter_case{alt_get_ibexpeak_flash_version_func, "get_ibexpeak_bios_flash_version", 1},
        getter_case{std_get_ibexpeak_qel_flash_version_func, "get_ibexpeak_qel_bios_flash_version", 0},
        getter_case{alt_get_ibexpeak_qel_flash_version_func, "get_ibexpeak_qel_bios_flash_version", 1},
        getter_case{std_get_ibexpeak_tarvik_a_flash_version_func, "get_ibexpeak_tarvik_a_bios_flash_version", 0},
        getter_case{alt_get_ibexpeak_tarvik_a_flash_version_func, "get_ibexpeak_tarvik_a_bios_flash_version", 1}));

class ImageVersion : public daemon_test
{
protected:
    char version[256] = "";
};

TEST_F(ImageVersion, OfThePlainReaderIsLogged)
{
    platform().version_texts["get_bios_src_version"] = "v3.5.0(09/17/12)";
    EXPECT_EQ(std_get_src_version_func("/bootflash/.tmpbios.bin", version), 0);
    EXPECT_STREQ(version, "v3.5.0(09/17/12)");
    EXPECT_EQ(platform().story({"get_bios_src_version", "log"}),
              (lines{"get_bios_src_version(\"/bootflash/.tmpbios.bin\", 0)",
                     "log( bios image src version = v3.5.0(09/17/12)\\n)"}));
}

TEST_F(ImageVersion, OfThePlainReaderPassesTheStatusOn)
{
    platform().next_result("get_bios_src_version", {-61, 0});
    EXPECT_EQ(std_get_src_version_func("/x", version), -61);
}

TEST_F(ImageVersion, OfTheIbexpeakReadersIsNotLogged)
{
    platform().version_texts["get_ibexpeak_bios_src_version"] = "v3.5.0(09/17/12)";
    EXPECT_EQ(std_image_ibexpeak_src_version_func("/a", version, 19), 0);
    EXPECT_EQ(std_get_ibexpeak_src_version_func("/b", version), 0);
    EXPECT_STREQ(version, "v3.5.0(09/17/12)");
    EXPECT_EQ(platform().calls("get_ibexpeak_bios_src_version"),
              (lines{"get_ibexpeak_bios_src_version(\"/a\", 0)", "get_ibexpeak_bios_src_version(\"/b\", 0)"}));
    EXPECT_EQ(platform().logs(), lines{});
}

TEST_F(ImageVersion, OfTheIbexpeakReadersPassesTheStatusOn)
{
    platform().every_result("get_ibexpeak_bios_src_version", {-22, 0});
    EXPECT_EQ(std_image_ibexpeak_src_version_func("/a", version, 0), -22);
    EXPECT_EQ(std_get_ibexpeak_src_version_func("/b", version), -22);
}

// The readers of image formats, in place of the daemon's own.
int answer_reader(const char *name, const char *path, std::uint32_t offset, char *version_out)
{
    const scripted_result result = platform().called(name, joined({quoted(path), std::to_string(offset)}));
    std::strcpy(version_out, name);
    return static_cast<int>(result.value);
}

} // namespace

extern "C" {
std::int32_t __wrap_get_x86_bios_version(const char *path, std::uint32_t offset, char *version_out)
{
    return answer_reader("get_x86_bios_version", path, offset, version_out);
}
std::int32_t __wrap_get_x86s_bios_version(const char *path, std::uint32_t offset, char *version_out)
{
    return answer_reader("get_x86s_bios_version", path, offset, version_out);
}
std::int32_t __wrap_get_x86n_bios_version(const char *path, std::uint32_t offset, char *version_out)
{
    return answer_reader("get_x86n_bios_version", path, offset, version_out);
}
std::int32_t __wrap_get_ppc_lc2dc3_bios_version(const char *path, std::uint32_t offset, char *version_out)
{
    return answer_reader("get_ppc_lc2dc3_bios_version", path, offset, version_out);
}
std::int32_t __wrap_get_ppc_bios_version(const char *path, std::uint32_t offset, char *version_out)
{
    return answer_reader("get_ppc_bios_version", path, offset, version_out);
}
}

namespace
{

TEST_F(ImageVersion, IsReadByTheReaderOfTheImageFormat)
{
    const std::map<std::uint32_t, std::string> readers{
        {11, "get_x86_bios_version"},        {15, "get_x86s_bios_version"}, {19, "get_x86n_bios_version"},
        {17, "get_ppc_lc2dc3_bios_version"}, {0, "get_ppc_bios_version"},   {12, "get_ppc_bios_version"},
        {16, "get_ppc_bios_version"},        {20, "get_ppc_bios_version"},  {0xffffffff, "get_ppc_bios_version"}};
    for (const auto &[format, reader] : readers) {
        platform().next_result(reader, {-61, 0});
        EXPECT_EQ(std_image_src_version_func("/image", version, format), -61) << format;
        EXPECT_STREQ(version, reader.c_str()) << format;
        EXPECT_EQ(platform().calls(reader).back(), reader + "(\"/image\", 0)") << format;
        EXPECT_EQ(platform().logs().back(), " bios flash version = " + reader + "\\n");
    }
}

TEST_F(ImageVersion, OfFormat18IsReadByThePlatform)
{
    platform().version_texts["get_bios_src_version"] = "v1.2.3(x)";
    EXPECT_EQ(std_image_src_version_func("/image", version, 18), 0);
    EXPECT_EQ(platform().story({"get_bios_src_version", "log"}),
              (lines{"log(std_image_src_version_func:76:\\n)", "get_bios_src_version(\"/image\", 0)",
                     "log( bios flash version = v1.2.3(x)\\n)"}));
}

} // namespace
