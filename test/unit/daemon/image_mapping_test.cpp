// A flash device or image file, mapped for the version readers.
#include "image_mapping.h"

#include <cerrno>

#include "daemon_test.h"

namespace
{

constexpr char path[] = "/bootflash/image";

using ImageMapping = daemon_test;

TEST_F(ImageMapping, ShowsTheBytesAtTheOffset)
{
    platform().write_file(path, std::string(4096, 'a') + "bc");
    image_mapping image;
    ASSERT_EQ(image.map(path, 128, 4096), 0);
    EXPECT_EQ(image.readable_bytes(), 2u);
    EXPECT_EQ(image.bytes()[0], 'b');
    EXPECT_EQ(image.bytes()[1], 'c');
}

TEST_F(ImageMapping, HasAtMostTheMappedBytes)
{
    platform().write_file(path, std::string(4096, 'a'));
    image_mapping image;
    ASSERT_EQ(image.map(path, 128, 0), 0);
    EXPECT_EQ(image.readable_bytes(), 128u);
}

TEST_F(ImageMapping, HasNoReadableBytesBehindTheEnd)
{
    platform().write_file(path, std::string(4096, 'a'));
    for (const std::uint32_t offset : {0x1000u, 0x2000u, 0x7ffff000u}) {
        image_mapping image;
        ASSERT_EQ(image.map(path, 128, offset), 0);
        EXPECT_EQ(image.readable_bytes(), 0u) << offset;
    }
}

TEST_F(ImageMapping, IsReleasedOnce)
{
    platform().write_file(path, "a");
    {
        image_mapping image;
        ASSERT_EQ(image.map(path, 128, 0), 0);
        image.release();
        EXPECT_EQ(image.readable_bytes(), 0u);
        image.release();
    }
    EXPECT_EQ(platform().calls("munmap"), lines{"munmap(0x80)"});
}

TEST_F(ImageMapping, HoldsNothingAfterAFailure)
{
    platform().write_file(path, "a");
    image_mapping image;
    EXPECT_EQ(image.map("/bootflash/none", 128, 0), -22);
    EXPECT_EQ(image.map(path, 128, 1), -22) << "not a valid mapping offset";
    EXPECT_EQ(platform().logs(),
              (lines{"ERROR: could not open the flash err=2 \\n", "ERROR: could not mmap the flash err=22 \\n"}));
    EXPECT_EQ(image.readable_bytes(), 0u);
    EXPECT_EQ(platform().calls("munmap"), lines{});
}

} // namespace
