// Version readers for x86 BIOS images, and the fields that they are decoded from.
#include "x86_version.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bios_image.h"
#include "daemon_test.h"

namespace
{

constexpr char path[] = "/bootflash/.tmpbios.bin";

using reader = std::int32_t (*)(const char *, std::uint32_t, char *);

class X86Version : public daemon_test
{
protected:
    X86Version() { std::memset(version, 'z', sizeof version); }

    std::int32_t read(reader read_version, const bios_image &image, std::uint32_t offset = 0)
    {
        platform().write_file(path, image.content());
        return read_version(path, offset, version);
    }
    bool is_zeroed() const { return std::string_view(version, 128) == std::string_view(std::string(128, '\0')); }

    char version[129]; // one byte more than a reader may touch
};

lines without_line_numbers(lines messages)
{
    for (std::string &message : messages)
        if (const std::size_t first = message.find(':');
            message.find("_check:") + 6 == first || message.find("asc_to_") == 0)
            message = message.substr(0, first) + ":N:\\n";
    return messages;
}

// A 512 KiB image with a signature block at an offset.
bios_image x86_image(std::size_t block, const char *date = "09/17/12", const char *number = "v1.02.03")
{
    bios_image image(0x100000, '\0');
    image.put(block, bios_signature).put(block + 31, date).put(block + 56, number);
    return image;
}

TEST_F(X86Version, OfAnX86ImageIsTheVersionAndTheDateOfItsBlock)
{
    EXPECT_EQ(read(get_x86_bios_version, x86_image(0)), 0);
    EXPECT_STREQ(version, "v1.02.03(09/17/12)");
    EXPECT_EQ(version[128], 'z');
    EXPECT_EQ(platform().logs(), lines{"location=/bootflash/.tmpbios.bin phy=0x0 ver=\\n"});
}

TEST_F(X86Version, OfAnX86ImageIsFoundAtEveryStepOf1KiB)
{
    for (const std::size_t block : {0x400u, 0x800u, 0x40000u, 0x7f800u, 0x7fc00u}) {
        EXPECT_EQ(read(get_x86_bios_version, x86_image(block)), 0) << block;
        EXPECT_STREQ(version, "v1.02.03(09/17/12)") << block;
    }
}

TEST_F(X86Version, OfAnX86ImageIsNotFoundBesideTheSteps)
{
    for (const std::size_t block : {0x1u, 0x200u, 0x3ffu, 0x401u, 0x7fc01u, 0x80000u, 0x80400u}) {
        errno = 0;
        EXPECT_EQ(read(get_x86_bios_version, x86_image(block)), -61) << block;
        EXPECT_TRUE(is_zeroed());
        EXPECT_THAT(platform().logs().back(),
                    testing::MatchesRegex("ERROR: could not find flash version err=[0-9]+ \\\\n"));
    }
}

TEST_F(X86Version, OfAnX86ImageIsThatOfTheFirstBlock)
{
    bios_image image = x86_image(0x800, "01/01/01", "first   ");
    image.put(0x7fc00, bios_signature).put(0x7fc00 + 31, "02/02/02").put(0x7fc00 + 56, "second  ");
    EXPECT_EQ(read(get_x86_bios_version, image), 0);
    EXPECT_STREQ(version, "first   (01/01/01)");
}

TEST_F(X86Version, OfAnX86ImageEndsAtATerminatorInItsFields)
{
    EXPECT_EQ(read(get_x86_bios_version, x86_image(0, "d\0", "n\0")), 0);
    EXPECT_STREQ(version, "       n(       d)");
}

TEST_F(X86Version, OfAnX86FlashIsReadAtTheOffset)
{
    EXPECT_EQ(read(get_x86_bios_version, x86_image(0x80000), 0x80000), 0);
    EXPECT_STREQ(version, "v1.02.03(09/17/12)");
    EXPECT_EQ(platform().story({"open", "mmap", "munmap"}),
              (lines{"open(\"/bootflash/.tmpbios.bin\", O_RDWR)", "mmap(0x80000, read write shared, 524288)",
                     "munmap(0x80000)"}));
    EXPECT_TRUE(platform().logged("location=/bootflash/.tmpbios.bin phy=0x80000 ver=\\n"));
}

bios_image x86n_image(const char *month = "Sep")
{
    bios_image image(128, ' ');
    return image.put(18, bios_signature).put(55, month).put(59, "17").put(77, "12").put(81, "03").put(84, "05");
}

bios_image x86s_image()
{
    bios_image image(0x200000, ' ');
    return image.put(18, bios_signature)
        .put(0x10000 + 51, "Sep")
        .put(0x10000 + 55, "17")
        .put(0x10000 + 73, "12")
        .put(0x10000 + 77, "03")
        .put(0x10000 + 80, "05");
}

TEST_F(X86Version, OfAnX86nImageIsDecodedFromItsHeader)
{
    EXPECT_EQ(read(get_x86n_bios_version, x86n_image()), 0);
    EXPECT_STREQ(version, "  v3.5.0(09/17/12)");
    EXPECT_EQ(version[128], 'z');
    EXPECT_EQ(
        platform().story({"open", "mmap", "munmap"}),
        (lines{"open(\"/bootflash/.tmpbios.bin\", O_RDWR)", "mmap(0x80, read write shared, 0)", "munmap(0x80)"}));
}

TEST_F(X86Version, OfAnX86nImageLogsEachStep)
{
    EXPECT_EQ(read(get_x86n_bios_version, x86n_image()), 0);
    const lines messages = without_line_numbers(platform().logs());
    ASSERT_EQ(messages.size(), 11u);
    EXPECT_EQ(messages[0], ">>> get_x86n_bios_version\\n");
    EXPECT_EQ(messages[1], "location=/bootflash/.tmpbios.bin phy=0x0 ver=\\n");
    EXPECT_THAT(messages[2],
                testing::MatchesRegex("base = 0x0x[0-9a-f]+ MAGIC_OFFSET = 0x12, MAGIC_LEN = 31, MAGIC_STR = "
                                      ">>> KORVA SUP_TELMA_OR BIOS <<<, bios_hdr = .*"));
    EXPECT_EQ(lines(messages.begin() + 3, messages.end()),
              (lines{">>> Magic string check\\n", "magic_string_check:N:\\n", "asc_to_dec:N:\\n",
                     "asc_to_dec:N:\\n", "asc_to_mon:N:\\n", "asc_to_dec:N:\\n", "asc_to_dec:N:\\n",
                     "version found to be   v3.5.0(09/17/12)\\n"}));
}

TEST_F(X86Version, OfAnX86nImageAcceptsTheImageHeaderMagicInPlaceOfTheSignature)
{
    bios_image image = x86n_image();
    image.put(18, std::string(31, 'x')).put(0, image_header_magic);
    EXPECT_EQ(read(get_x86n_bios_version, image), 0);
    EXPECT_STREQ(version, "  v3.5.0(09/17/12)");
}

TEST_F(X86Version, OfAnX86nImageShowsAnUnknownMonthAsMinus1)
{
    for (const char *month : {"sep", "SEP", "Abc", "   "}) {
        EXPECT_EQ(read(get_x86n_bios_version, x86n_image(month)), 0);
        EXPECT_STREQ(version, "  v3.5.0(-1/17/12)") << month;
    }
}

TEST_F(X86Version, OfAnX86nImageReadsNumbersPastTheirFields)
{
    bios_image image = x86n_image();
    image.put(59, "0712 ").put(77, "12a");
    EXPECT_EQ(read(get_x86n_bios_version, image), 0);
    EXPECT_STREQ(version, "  v3.5.0(09/712/12)");
}

TEST_F(X86Version, OfAnX86nHeaderFullOfDigitsStaysInTheBuffer)
{
    bios_image image(128, '1');
    EXPECT_EQ(read(get_x86n_bios_version, image.put(18, bios_signature)), 0);
    EXPECT_EQ(version[128], 'z');
    EXPECT_LT(std::strlen(version), 128u);
}

TEST_F(X86Version, OfAnX86nImageWithoutSignatureIsNotFound)
{
    bios_image image = x86n_image();
    EXPECT_EQ(read(get_x86n_bios_version, image.put(48, "!")), -61);
    EXPECT_TRUE(is_zeroed());
    const lines messages = platform().logs();
    EXPECT_EQ(messages.at(messages.size() - 2), "BIOS version magic string not found\\n");
    EXPECT_THAT(messages.back(),
                testing::MatchesRegex("ERROR: could not find flash version \\(\\) err=[0-9]+ rc=-61 \\\\n"));
}

TEST_F(X86Version, OfAnX86nFlashIsReadAtTheOffset)
{
    bios_image image(0x20000);
    EXPECT_EQ(read(get_x86n_bios_version, image.put(0x10000, x86n_image().content()), 0x10000), 0);
    EXPECT_STREQ(version, "  v3.5.0(09/17/12)");
}

TEST_F(X86Version, OfAnX86sImageIsDecodedFromItsSecondHeader)
{
    EXPECT_EQ(read(get_x86s_bios_version, x86s_image()), 0);
    EXPECT_STREQ(version, "  v3.5.0(09/17/12)");
    EXPECT_EQ(platform().story({"open", "mmap", "munmap"}),
              (lines{"open(\"/bootflash/.tmpbios.bin\", O_RDWR)", "mmap(0x200000, read write shared, 0)",
                     "munmap(0x200000)"}));
    EXPECT_EQ(without_line_numbers(platform().logs()),
              (lines{">>> get_x86s_bios_version\\n", "location=/bootflash/.tmpbios.bin phy=0x0 ver=\\n",
                     ">>> Magic string check\\n", "magic_string_check:N:\\n", "asc_to_dec:N:\\n",
                     "asc_to_dec:N:\\n", "asc_to_mon:N:\\n", "asc_to_dec:N:\\n", "asc_to_dec:N:\\n",
                     "version found to be   v3.5.0(09/17/12)\\n"}));
}

TEST_F(X86Version, OfAnX86sImageNeedsTheSignatureAtItsStart)
{
    bios_image image = x86s_image();
    image.put(18, std::string(31, ' ')).put(0x10000 + 18, bios_signature);
    EXPECT_EQ(read(get_x86s_bios_version, image), -61);
    EXPECT_TRUE(is_zeroed());
}

struct named_reader {
    const char *name;
    reader read_version;
};

void PrintTo(const named_reader &chosen, std::ostream *out)
{
    *out << chosen.name;
}

class EveryX86Version : public X86Version, public testing::WithParamInterface<named_reader>
{
};

TEST_P(EveryX86Version, RefusesAPathThatCannotBeOpened)
{
    EXPECT_EQ(GetParam().read_version("/bootflash/none.bin", 0, version), -22);
    EXPECT_EQ(platform().logs().back(), "ERROR: could not open the flash err=2 \\n");
    EXPECT_TRUE(is_zeroed());
}

TEST_P(EveryX86Version, OpensReadWrite)
{
    platform().write_file(path, x86s_image().content());
    platform().next_result("open", {-1, EACCES});
    EXPECT_EQ(GetParam().read_version(path, 0, version), -22);
    EXPECT_EQ(platform().calls("open"), lines{"open(\"/bootflash/.tmpbios.bin\", O_RDWR)"});
    EXPECT_EQ(platform().logs().back(), "ERROR: could not open the flash err=13 \\n");
}

// Runs as an ordinary user, because root may write to every file.
class ordinary_user
{
public:
    ordinary_user() : user_(::geteuid()) { done_ = user_ != 0 || ::seteuid(65534) == 0; }
    ~ordinary_user() { done_ = ::seteuid(user_) == 0; }
    bool done() const { return done_; }

private:
    uid_t user_;
    bool done_;
};

TEST_P(EveryX86Version, RefusesAReadOnlyFile)
{
    platform().write_file(path, x86s_image().content());
    ASSERT_EQ(::chmod(platform().path(path).c_str(), 0444), 0);
    ASSERT_EQ(::chmod(platform().root().c_str(), 0755), 0);
    const ordinary_user user;
    ASSERT_TRUE(user.done());
    EXPECT_EQ(GetParam().read_version(path, 0, version), -22);
    EXPECT_EQ(platform().logs().back(), "ERROR: could not open the flash err=13 \\n");
}

TEST_P(EveryX86Version, RefusesAFileThatCannotBeMapped)
{
    platform().write_file(path, x86s_image().content());
    platform().next_result("mmap", {-1, ENODEV});
    EXPECT_EQ(GetParam().read_version(path, 0, version), -22);
    EXPECT_EQ(platform().logs().back(), "ERROR: could not mmap the flash err=19 \\n");
    EXPECT_TRUE(is_zeroed());
}

TEST_P(EveryX86Version, TakesDescriptor0ForAFailure)
{
    platform().write_file(path, x86s_image().content());
    const int standard_input = ::dup(STDIN_FILENO);
    ::close(STDIN_FILENO);
    const std::int32_t result = GetParam().read_version(path, 0, version);
    ASSERT_EQ(::dup2(standard_input, STDIN_FILENO), STDIN_FILENO);
    ::close(standard_input);
    EXPECT_EQ(result, -22);
}

TEST_P(EveryX86Version, DoesNotTouchBytesBehindTheEndOfTheFile)
{
    for (const std::size_t length : {0u, 1u, 48u, 49u, 100u, 4095u, 4097u, 0x10000u, 0x10010u}) {
        platform().write_file(path, bios_image(length).content());
        EXPECT_EQ(GetParam().read_version(path, 0, version), -61) << length;
        EXPECT_TRUE(is_zeroed());
    }
}

TEST_F(X86Version, OfAnX86sImageDoesNotTouchTheSecondHeaderOfAFileThatEndsBeforeIt)
{
    platform().write_file(path, x86s_image().content().substr(0, 0x10000 - 4096));
    const std::int32_t result = get_x86s_bios_version(path, 0, version);
    EXPECT_EQ(result, -61);
    EXPECT_TRUE(is_zeroed());
}

// The mapping shows zeros from the end of the file to the end of its page.
TEST_F(X86Version, OfAFileThatEndsWithinItsFieldsIsDecodedAsIfZerosFollowed)
{
    platform().write_file(path, x86n_image().content().substr(0, 86));
    EXPECT_EQ(get_x86n_bios_version(path, 0, version), 0);
    EXPECT_STREQ(version, "  v3.5.0(09/17/12)");
    platform().write_file(path, x86n_image().content().substr(0, 82));
    EXPECT_EQ(get_x86n_bios_version(path, 0, version), 0);
    EXPECT_STREQ(version, "  v0.0.0(09/17/12)");
    platform().write_file(path, x86s_image().content().substr(0, 0x10000 + 82));
    EXPECT_EQ(get_x86s_bios_version(path, 0, version), 0);
    EXPECT_STREQ(version, "  v3.5.0(09/17/12)");
    platform().write_file(path, x86_image(0x400).content().substr(0, 0x400 + 58));
    EXPECT_EQ(get_x86_bios_version(path, 0, version), 0);
    EXPECT_STREQ(version, "      v1(09/17/12)");
}

TEST_F(X86Version, OfAFileThatEndsWithinItsSignatureIsNotFound)
{
    platform().write_file(path, x86n_image().content().substr(0, 48));
    EXPECT_EQ(get_x86n_bios_version(path, 0, version), -61);
    EXPECT_EQ(get_x86s_bios_version(path, 0, version), -61);
    platform().write_file(path, x86_image(0x400).content().substr(0, 0x400 + 30));
    EXPECT_EQ(get_x86_bios_version(path, 0, version), -61);
    EXPECT_TRUE(is_zeroed());
}

TEST_P(EveryX86Version, LeavesTheFileAsItWas)
{
    const std::string content = x86s_image().content();
    platform().write_file(path, content);
    (void)GetParam().read_version(path, 0, version);
    EXPECT_EQ(platform().read_file(path), content);
}

INSTANTIATE_TEST_SUITE_P(EveryReader, EveryX86Version,
                         testing::Values(named_reader{"x86", get_x86_bios_version},
                                         named_reader{"x86n", get_x86n_bios_version},
                                         named_reader{"x86s", get_x86s_bios_version}),
                         [](const auto &instance) { return instance.param.name; });

using MagicString = daemon_test;
using AscToMon = daemon_test;
using AscToDec = daemon_test;

TEST_F(MagicString, IsTheSignatureAtByte18OrTheMagicAtTheStart)
{
    bios_image header(49, '\0');
    EXPECT_EQ(magic_string_check(header.content().data()), -1);
    EXPECT_EQ(magic_string_check(bios_image(49).put(18, bios_signature).content().data()), 0);
    EXPECT_EQ(magic_string_check(bios_image(49).put(0, image_header_magic).content().data()), 0);
    EXPECT_EQ(magic_string_check(bios_image(49).put(17, bios_signature).content().data()), -1);
    EXPECT_EQ(magic_string_check(bios_image(49).put(0, "\x56\x19\x05\x27").content().data()), -1);
    EXPECT_EQ(magic_string_check(bios_image(49).put(0, "\x27\x05\x19\x57").content().data()), -1);
}

TEST_F(AscToMon, IsTheNumberOfTheMonth)
{
    const char *months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(asc_to_mon(months[i], 3), i + 1);
    EXPECT_EQ(asc_to_mon("September", 3), 9);
    EXPECT_EQ(asc_to_mon("sep", 3), -1);
    EXPECT_EQ(asc_to_mon("Se", 3), -1);
    EXPECT_EQ(asc_to_mon("", 3), -1);
}

TEST_F(AscToDec, IsTheNumberAtTheText)
{
    EXPECT_EQ(asc_to_dec("17", 2), 17);
    EXPECT_EQ(asc_to_dec("  17x", 2), 17);
    EXPECT_EQ(asc_to_dec("0712", 2), 712);
    EXPECT_EQ(asc_to_dec("-3", 2), -3);
    EXPECT_EQ(asc_to_dec("", 2), 0);
    EXPECT_EQ(asc_to_dec("x1", 2), 0);
}

} // namespace
