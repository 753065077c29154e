// Whether a flash and an image hold the same bytes.
#include "image_comparison.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "daemon_test.h"
#include "record_forms.h"
#include "saved_streams.h"

namespace
{
bool tells_closing = false;

// Which of the two files a descriptor is: "flash" or "image".
std::string name_of(int fd)
{
    char target[256] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    if (::readlink(link.c_str(), target, sizeof target - 1) < 0)
        return "unknown";
    const std::string path = target;
    return path.substr(path.rfind('/') + 1);
}
} // namespace

extern "C" int __real_close(int fd);

extern "C" int __wrap_close(int fd)
{
    if (tells_closing)
        platform().note("close(" + name_of(fd) + ")");
    return __real_close(fd);
}

namespace
{

constexpr char flash[] = "/bootflash/flash";
constexpr char image[] = "/bootflash/image";

class ImageComparison : public daemon_test
{
protected:
    static std::int32_t compare(std::uint32_t length, std::int32_t flash_offset = 0, std::int32_t image_offset = 0)
    {
        return compare_bios_images(flash, flash_offset, image, image_offset, length);
    }
};

TEST_F(ImageComparison, FindsTwoCopiesEqual)
{
    const std::string content = std::string(9000, 'f') + std::string(1000, '\0');
    platform().write_file(flash, content);
    platform().write_file(image, content);
    EXPECT_EQ(compare(10000), 0);
    EXPECT_EQ(platform().logs(), lines{});
}

TEST_F(ImageComparison, TellsTheOrderOfTheFirstDifferenceInUnsignedBytes)
{
    struct contents {
        std::string first;
        std::string second;
        std::int32_t result;
    };
    for (const contents &each : {contents{"aaaa", "aaab", -1}, contents{"aaab", "aaaa", 1},
                                 contents{"a\x7f"
                                          "zz",
                                          "a\x80"
                                          "aa",
                                          -1},
                                 contents{"\xff"
                                          "aaa",
                                          std::string("\x00"
                                                      "bbb",
                                                      4),
                                          1}}) {
        platform().write_file(flash, each.first);
        platform().write_file(image, each.second);
        EXPECT_EQ(compare(4), each.result) << each.first << " " << each.second;
    }
}

TEST_F(ImageComparison, LooksAtTheLastByteAndNotBehindIt)
{
    std::string content(8192, 'x');
    platform().write_file(flash, content);
    content.back() = 'y';
    platform().write_file(image, content);
    EXPECT_EQ(compare(8192), -1);
    EXPECT_EQ(compare(8191), 0);
}

TEST_F(ImageComparison, BeginsAtTheOffsets)
{
    platform().write_file(flash, std::string(4096, 'a') + "same!");
    platform().write_file(image, std::string(8192, 'b') + "same?");
    EXPECT_EQ(compare(4, 4096, 8192), 0);
    EXPECT_EQ(compare(5, 4096, 8192), -1);
    EXPECT_EQ(compare(4, 0, 8192), -1);
}

TEST_F(ImageComparison, MapsAndReleasesBothInOrder)
{
    platform().write_file(flash, std::string(4096 + 300, 'a'));
    platform().write_file(image, std::string(300, 'a'));
    tells_closing = true;
    EXPECT_EQ(compare(300, 4096, 0), 0);
    tells_closing = false;
    EXPECT_EQ(platform().story({"open", "mmap", "munmap", "close"}),
              (lines{"open(\"/bootflash/flash\", O_RDWR)", "mmap(0x12c, read write shared, 4096)",
                     "open(\"/bootflash/image\", O_RDWR)", "mmap(0x12c, read write shared, 0)", "munmap(0x12c)",
                     "munmap(0x12c)", "close(flash)", "close(image)"}));
}

TEST_F(ImageComparison, FindsNoBytesEqual)
{
    platform().write_file(flash, "a");
    platform().write_file(image, "b");
    EXPECT_EQ(compare(0), 0);
    EXPECT_THAT(platform().calls("mmap"), testing::SizeIs(2));
    EXPECT_THAT(platform().calls("munmap"), testing::SizeIs(2));
    platform().write_file(image, "");
    EXPECT_EQ(compare(0), 0) << "an empty file";
    EXPECT_EQ(compare_bios_images(flash, 0, "/bootflash/none", 0, 0), -22);
}

TEST_F(ImageComparison, IsSilentAboutAFileThatCannotBeOpened)
{
    platform().write_file(flash, "a");
    EXPECT_EQ(compare_bios_images("/bootflash/none", 0, flash, 0, 1), -22);
    EXPECT_EQ(compare_bios_images(flash, 0, "/bootflash/none", 0, 1), -22);
    EXPECT_EQ(platform().logs(), lines{});
    EXPECT_EQ(platform().calls("mmap").size(), platform().calls("munmap").size());
}

TEST_F(ImageComparison, OpensReadWrite)
{
    platform().write_file(flash, "a");
    platform().write_file(image, "a");
    platform().next_result("open", {0, 0});
    platform().next_result("open", {-1, EROFS});
    EXPECT_EQ(compare(1), -22);
    EXPECT_EQ(platform().calls("open"),
              (lines{"open(\"/bootflash/flash\", O_RDWR)", "open(\"/bootflash/image\", O_RDWR)"}));
    EXPECT_EQ(platform().logs(), lines{});
}

// Descriptor 0 is what a process without standard input gets, and nobody's flash.
TEST_F(ImageComparison, RefusesDescriptorZeroForEitherFile)
{
    platform().write_file(flash, "a");
    platform().write_file(image, "a");
    const saved_streams streams;
    ASSERT_EQ(::close(0), 0);
    EXPECT_EQ(compare(1), -22) << "the first file gets it";
    EXPECT_EQ(::fcntl(0, F_GETFD), -1) << "and it is closed again";
    EXPECT_THAT(platform().calls("mmap"), testing::SizeIs(0));

    platform().when("mmap(", [] { (void)::close(0); });
    ASSERT_EQ(::open("/dev/null", O_RDONLY), 0);
    EXPECT_EQ(compare(1), -22) << "the second file gets it";
    EXPECT_THAT(platform().calls("mmap"), testing::SizeIs(1));
    EXPECT_EQ(platform().logs(), lines{});
}

TEST_F(ImageComparison, LogsTheFirstMappingThatFails)
{
    platform().write_file(flash, "a");
    platform().write_file(image, "a");
    platform().next_result("mmap", {-1, ENOMEM});
    EXPECT_EQ(compare(1), -22);
    EXPECT_EQ(platform().logs(), lines{"ERROR: could not mmap the flash err=12 \\n"});
    EXPECT_THAT(platform().calls("open"), testing::SizeIs(1)) << "the second file is not opened";
}

TEST_F(ImageComparison, LogsTheSecondMappingThatFails)
{
    platform().write_file(flash, "a");
    platform().write_file(image, "a");
    platform().next_result("mmap", {0, 0});
    platform().next_result("mmap", {-1, EACCES});
    EXPECT_EQ(compare(1), -22);
    EXPECT_EQ(platform().logs(), lines{"ERROR: could not mmap the flash err=13 \\n"});
    EXPECT_THAT(platform().calls("munmap"), testing::SizeIs(1)) << "the first mapping is not left behind";
}

TEST_F(ImageComparison, CannotMapAtAnOffsetThatIsNone)
{
    platform().write_file(flash, std::string(8192, 'a'));
    platform().write_file(image, std::string(8192, 'a'));
    EXPECT_EQ(compare(1, 1, 0), -22);
    EXPECT_EQ(compare(1, 0, 4095), -22);
    EXPECT_EQ(compare(1, -4096, 0), -22);
    EXPECT_THAT(platform().logs(), testing::SizeIs(3));
}

TEST_F(ImageComparison, HasNoStretchBehindTheEndOfAFile)
{
    platform().write_file(flash, std::string(4096 + 10, 'a'));
    platform().write_file(image, std::string(100, 'a'));
    EXPECT_EQ(compare(100), 0);
    EXPECT_EQ(compare(101), -22) << "the image ends";
    EXPECT_EQ(compare(11, 4096, 0), -22) << "the flash ends";
    EXPECT_EQ(compare(1, 8192, 0), -22) << "nothing of the stretch is there";
    EXPECT_EQ(platform().logs(), lines(3, "ERROR: could not mmap the flash err=6 \\n"));
}

TEST_F(ImageComparison, CannotMapMoreThanThereIsRoomFor)
{
    platform().write_file(flash, "a");
    platform().write_file(image, "a");
    EXPECT_EQ(compare(0xffffffff), -22);
}

} // namespace
