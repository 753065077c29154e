// Version readers for PowerPC BIOS images and the digest that proves an image intact.
#include "ppc_version.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

#include "bios_image.h"
#include "daemon_test.h"

extern "C" {
int __real_system(const char *command);
FILE *__real_popen(const char *command, const char *mode);
int __real_pclose(FILE *stream);
}

namespace
{

constexpr char path[] = "/bootflash/.tmpbios.bin";
constexpr char md5sum_call[] =
    "exec_cmd_with_files_print(\"/usr/bin/md5sum /tmp/new_bios\", null, \"/tmp/chksum\", null, 0)";
constexpr std::size_t image_bytes = 0x80000;
constexpr std::int32_t not_opened = -1081147420;
constexpr std::int32_t not_written = -1081147426;

// MD5 digest of a text, 16 bytes.
std::string digest_of(const std::string &content)
{
    const std::string file = "/tmp/digest_input";
    platform().write_file(file, content);
    FILE *output = __real_popen(("/usr/bin/md5sum " + platform().path(file)).c_str(), "r");
    std::string digest;
    for (int i = 0; i < 16; ++i) {
        unsigned byte = 0;
        if (std::fscanf(output, "%2x", &byte) == 1)
            digest += static_cast<char>(byte);
    }
    (void)__real_pclose(output);
    return digest;
}

// A PPC image of 512 KiB with every version field of both layouts, and its digest.
bios_image intact_image(bios_image image)
{
    image.put(4, std::string(16, '\0'));
    return image.put(4, digest_of(image.content()));
}

bios_image ppc_fields()
{
    bios_image image(image_bytes, ' ');
    return image.put(0, image_header_magic)
        .put(38, "1")
        .put(41, "2")
        .put(44, "3")
        .put(48, "Sep")
        .put(52, "17")
        .put(56, "12");
}

bios_image lc2dc3_fields()
{
    bios_image image(image_bytes, ' ');
    image.put(0, image_header_magic).put(38, "1").put(41, "2").put(44, "3").put(47, "4");
    return image.put(51, "Sep").put(55, "17").put(58, "2012");
}

class PpcChecksum : public daemon_test
{
protected:
    PpcChecksum()
    {
        platform().when("exec_cmd_with_files_print(\"/usr/bin/md5sum", [this] { run_md5sum(); });
    }

    void run_md5sum()
    {
        struct stat file {
        };
        if (::stat(platform().path("/tmp/new_bios").c_str(), &file) == 0)
            mode_of_new_bios = file.st_mode & 07777;
        digested = platform().read_file("/tmp/new_bios").value_or("no file");
        const std::string command = "cd " + platform().root() + "/tmp && /usr/bin/md5sum new_bios > chksum";
        ASSERT_EQ(__real_system(command.c_str()), 0);
    }
    static void expect_no_work_files()
    {
        EXPECT_FALSE(platform().file_exists("/tmp/new_bios"));
        EXPECT_FALSE(platform().file_exists("/tmp/chksum"));
    }
    static std::int32_t checksum(const bios_image &image) { return bios_checksum_ppc(image.content().data()); }

    std::string digested;
    mode_t mode_of_new_bios = 0;
};

TEST_F(PpcChecksum, Is0ForAnIntactImage)
{
    const bios_image image = intact_image(ppc_fields());
    EXPECT_EQ(checksum(image), 0);
    EXPECT_EQ(digested.size(), image_bytes);
    EXPECT_EQ(digested, bios_image(image).put(4, std::string(16, '\0')).content());
    EXPECT_EQ(mode_of_new_bios, 0777u);
    EXPECT_EQ(platform().calls("exec_cmd_with_files_print"), lines{md5sum_call});
    expect_no_work_files();
}

TEST_F(PpcChecksum, LogsBothDigests)
{
    const bios_image image = intact_image(ppc_fields());
    EXPECT_EQ(checksum(image), 0);
    std::string hex;
    for (const char byte : image.content().substr(4, 16)) {
        std::array<char, 3> digits;
        (void)std::snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned char>(byte));
        hex += digits.data();
    }
    const lines messages = platform().logs();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_THAT(messages[0], testing::MatchesRegex("bios_checksum_ppc:[0-9]+:\\\\n"));
    EXPECT_EQ(messages[1], " Des = " + hex + "     Src = " + hex + "   \\n");
    EXPECT_EQ(messages[2], "RET CODE  of checksum 0 \\n");
}

TEST_F(PpcChecksum, IsNot0AfterAChangeOfAnyByteOutsideTheDigest)
{
    const bios_image intact = intact_image(ppc_fields());
    for (const std::size_t offset : {0u, 3u, 20u, 1000u, 0x7ffffu}) {
        bios_image changed = intact;
        const char other = static_cast<char>(changed.content()[offset] ^ 1);
        EXPECT_NE(checksum(changed.put(offset, std::string(1, other))), 0) << offset;
        expect_no_work_files();
    }
}

TEST_F(PpcChecksum, ComparesASmallByteWithItsLeadingZero)
{
    bios_image image(image_bytes, '\0');
    image = intact_image(image);
    for (unsigned tries = 0; image.content().find('\x0a', 4) >= 20; ++tries)
        image = intact_image(image.put(100, std::to_string(tries)));
    EXPECT_EQ(checksum(image), 0);
}

TEST_F(PpcChecksum, HasTheSignOfTheComparedTexts)
{
    EXPECT_LT(checksum(intact_image(ppc_fields()).put(4, std::string(16, '\0'))), 0);
    EXPECT_GT(checksum(intact_image(ppc_fields()).put(4, std::string(16, '\xff'))), 0);
}

TEST_F(PpcChecksum, WritesTheImageInTheRequiredPieces)
{
    platform().record_writes = true;
    EXPECT_EQ(checksum(intact_image(ppc_fields())), 0);
    lines expected{"write(4)"};
    expected.insert(expected.end(), 16, "write(1)");
    expected.insert(expected.end(), 1023, "write(512)");
    expected.emplace_back("write(492)");
    EXPECT_EQ(platform().calls("write"), expected);
}

TEST_F(PpcChecksum, ReplacesLeftOverWorkFiles)
{
    platform().write_file("/tmp/new_bios", std::string(2 * image_bytes, 'x'));
    platform().write_file("/tmp/chksum", std::string(100, 'x'));
    EXPECT_EQ(checksum(intact_image(ppc_fields())), 0);
    EXPECT_EQ(digested.size(), image_bytes);
    expect_no_work_files();
}

TEST_F(PpcChecksum, ReportsAWorkFileThatCannotBeOpened)
{
    std::filesystem::remove_all(platform().path("/tmp"));
    EXPECT_EQ(checksum(ppc_fields()), not_opened);
    EXPECT_EQ(platform().logs().back(), "ERROR: Unable to Open New file\\n");
    EXPECT_EQ(platform().calls("exec_cmd_with_files_print"), lines{});
}

TEST_F(PpcChecksum, ReportsAWorkFileThatCannotBeWritten)
{
    const std::initializer_list<std::initializer_list<std::int64_t>> failures = {
        {2}, {-1}, {4, -1}, {4, 1, 1, 1, 0}, {4, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, -1}};
    for (const auto &written : failures) {
        for (const std::int64_t length : written)
            platform().next_result("write", {length, ENOSPC});
        EXPECT_EQ(checksum(ppc_fields()), not_written) << written.size();
        EXPECT_EQ(platform().logs().back(), "ERROR:Unable to Write to File\\n");
        expect_no_work_files();
    }
    EXPECT_EQ(platform().calls("exec_cmd_with_files_print"), lines{});
}

TEST_F(PpcChecksum, ReportsADigestThatWasNotMade)
{
    platform().when(md5sum_call, [] { std::filesystem::remove(platform().path("/tmp/chksum")); });
    EXPECT_EQ(checksum(ppc_fields()), not_opened);
    EXPECT_EQ(platform().logs().back(), "ERROR: Unable to Open New file\\n");
    expect_no_work_files();
}

TEST_F(PpcChecksum, IsNot0ForAShortDigest)
{
    platform().when(md5sum_call, [] { platform().write_file("/tmp/chksum", "12"); });
    EXPECT_NE(checksum(intact_image(ppc_fields())), 0);
    expect_no_work_files();
}

// Somebody else puts a link in place of a work file at the moment it is opened.
class PlantedLink : public PpcChecksum
{
protected:
    PlantedLink() { platform().write_file("/etc/victim", "untouched"); }
    static void plant(const std::string &file)
    {
        const std::string link = platform().path(file);
        std::filesystem::remove(link);
        std::filesystem::create_symlink(platform().path("/etc/victim"), link);
    }
};

TEST_F(PlantedLink, IsNotFollowedWhenTheImageIsWritten)
{
    platform().when("open(\"/tmp/new_bios\"", [] { plant("/tmp/new_bios"); });
    platform().when("fopen(\"/tmp/new_bios\"", [] { plant("/tmp/new_bios"); });
    EXPECT_EQ(checksum(intact_image(ppc_fields())), not_opened);
    EXPECT_EQ(platform().read_file("/etc/victim"), "untouched");
}

TEST_F(PlantedLink, IsNotFollowedWhenTheDigestIsRead)
{
    const bios_image image = intact_image(ppc_fields());
    platform().when("open(\"/tmp/chksum\"", [] { plant("/tmp/chksum"); });
    platform().when("fopen(\"/tmp/chksum\"", [] { plant("/tmp/chksum"); });
    EXPECT_EQ(checksum(image), not_opened);
    EXPECT_EQ(platform().read_file("/etc/victim"), "untouched");
}

TEST_F(PpcChecksum, WaitsForNoWriterOfAPlantedFifo)
{
    const bios_image image = intact_image(ppc_fields());
    platform().when("open(\"/tmp/chksum\"", [] {
        std::filesystem::remove(platform().path("/tmp/chksum"));
        ASSERT_EQ(::mkfifo(platform().path("/tmp/chksum").c_str(), 0600), 0);
    });
    EXPECT_EQ(checksum(image), not_opened);
}

TEST_F(PpcChecksum, TakesNoDigestOfAnotherUser)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to give a file to another user";
    const bios_image image = intact_image(ppc_fields());
    platform().when("open(\"/tmp/chksum\"",
                    [] { ASSERT_EQ(::chown(platform().path("/tmp/chksum").c_str(), 65534, 65534), 0); });
    EXPECT_EQ(checksum(image), not_opened);
    EXPECT_FALSE(platform().file_exists("/tmp/new_bios"));
}

class PpcVersion : public PpcChecksum
{
protected:
    PpcVersion() { std::memset(version, 'z', sizeof version); }

    std::int32_t read(decltype(&get_ppc_bios_version) reader, const bios_image &image, std::uint32_t offset = 0)
    {
        platform().write_file(path, image.content());
        return reader(path, offset, version);
    }
    bool is_zeroed() const { return std::string_view(version, 128) == std::string_view(std::string(128, '\0')); }
    static lines ending(std::size_t count)
    {
        const lines messages = platform().logs();
        return {messages.end() - static_cast<std::ptrdiff_t>(count), messages.end()};
    }

    char version[129];
    const std::string failure = "ERROR: could not find flash version () err=0 rc=-61 \\n";
};

TEST_F(PpcVersion, OfAnImageIsDecodedAfterItsDigestWasChecked)
{
    EXPECT_EQ(read(get_ppc_bios_version, intact_image(ppc_fields())), 0);
    EXPECT_STREQ(version, "  v1.2.3(09/17/12)");
    EXPECT_EQ(version[128], 'z');
    EXPECT_EQ(platform().story({"open", "mmap", "exec_cmd_with_files_print", "munmap"}).size(), 6u);
    EXPECT_EQ(platform().calls("mmap"), lines{"mmap(0x80000, read write shared, 0)"});
    EXPECT_EQ(platform().calls("munmap"), lines{"munmap(0x80000)"});
    EXPECT_EQ(platform().logs().back(), "LCDC3 version found to be   v1.2.3(09/17/12)\\n");
}

TEST_F(PpcVersion, OfAnLc2dc3ImageHasColumnsABuildDigitAndAFourDigitYear)
{
    EXPECT_EQ(read(get_ppc_lc2dc3_bios_version, intact_image(lc2dc3_fields())), 0);
    EXPECT_STREQ(version, "  v 1. 2. 34(09/17/2012)");
    EXPECT_EQ(platform().logs().back(), "LC2DC3 version found to be   v 1. 2. 34(09/17/2012)\\n");
}

TEST_F(PpcVersion, NamesItsReaderFirst)
{
    (void)read(get_ppc_bios_version, ppc_fields());
    EXPECT_THAT(platform().logs().at(0), testing::MatchesRegex("get_ppc_bios_version:[0-9]+:\\\\n"));
    EXPECT_EQ(platform().logs().at(1), "location=/bootflash/.tmpbios.bin phy=0x0 ver=\\n");
    const std::size_t before = platform().logs().size();
    (void)read(get_ppc_lc2dc3_bios_version, ppc_fields());
    EXPECT_THAT(platform().logs().at(before), testing::MatchesRegex("get_ppc_lc2dc3_bios_version:[0-9]+:\\\\n"));
}

TEST_F(PpcVersion, OfADamagedImageIsNotFound)
{
    bios_image image = intact_image(ppc_fields());
    EXPECT_EQ(read(get_ppc_bios_version, image.put(0x7ffff, "!")), -61);
    EXPECT_TRUE(is_zeroed());
    EXPECT_EQ(ending(2), (lines{"ERROR: Checksum Validation failed for the BIOS image\\n", failure}));
    EXPECT_EQ(errno, 0);
}

TEST_F(PpcVersion, OfAnImageWithoutSignatureIsNotFound)
{
    errno = EIO;
    EXPECT_EQ(read(get_ppc_bios_version, bios_image(image_bytes)), -61);
    EXPECT_TRUE(is_zeroed());
    EXPECT_EQ(ending(2), (lines{"ERROR: Magic String not Found -1\\n", failure}));
    EXPECT_EQ(platform().calls("exec_cmd_with_files_print"), lines{});
    EXPECT_EQ(errno, 0);
}

TEST_F(PpcVersion, OfAFlashIsReadWithoutChecksum)
{
    bios_image flash(0x1000 + image_bytes, ' ');
    EXPECT_EQ(read(get_ppc_bios_version, flash.put(0x1000, ppc_fields().content()), 0x1000), 0);
    EXPECT_STREQ(version, "  v1.2.3(09/17/12)");
    EXPECT_EQ(platform().calls("exec_cmd_with_files_print"), lines{});
}

TEST_F(PpcVersion, OfAnUnreadableFileIsRefused)
{
    EXPECT_EQ(get_ppc_bios_version("/bootflash/none", 0, version), -22);
    EXPECT_EQ(platform().logs().back(), "ERROR: could not open the flash err=2 \\n");
    EXPECT_TRUE(is_zeroed());
    platform().next_result("mmap", {-1, ENODEV});
    EXPECT_EQ(read(get_ppc_lc2dc3_bios_version, lc2dc3_fields()), -22);
    EXPECT_EQ(platform().logs().back(), "ERROR: could not mmap the flash err=19 \\n");
}

TEST_F(PpcVersion, OfAFileThatIsTooShortIsNotFound)
{
    for (const std::size_t length : {0u, 30u, 4096u, 0x7fffu}) {
        platform().write_file(path, ppc_fields().content().substr(0, length));
        EXPECT_EQ(get_ppc_bios_version(path, 0, version), -61) << length;
        EXPECT_EQ(get_ppc_lc2dc3_bios_version(path, 0, version), -61) << length;
        EXPECT_TRUE(is_zeroed());
    }
}

} // namespace
