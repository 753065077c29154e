// Whether a file is there.
#include "file_exists.h"

#include <cerrno>

#include "daemon_test.h"

namespace
{

using FileExists = daemon_test;

TEST_F(FileExists, IsTrueForAFileOrAFolder)
{
    platform().write_file("/bootflash/image", "");
    EXPECT_TRUE(file_exists("/bootflash/image"));
    EXPECT_TRUE(file_exists("/bootflash"));
}

TEST_F(FileExists, IsFalseForAMissingFileAndADanglingLink)
{
    std::filesystem::create_symlink("/nowhere/at/all", platform().path("/bootflash/link"));
    EXPECT_FALSE(file_exists("/bootflash/none"));
    EXPECT_FALSE(file_exists("/bootflash/link"));
    EXPECT_FALSE(file_exists(""));
}

TEST_F(FileExists, IsTrueForAFileWhoseSizeStatCannotExpress)
{
    platform().next_result("stat", {-1, EOVERFLOW});
    EXPECT_TRUE(file_exists("/bootflash/image"));
}

TEST_F(FileExists, IsFalseWhenTheFileCannotBeReached)
{
    platform().write_file("/bootflash/image", "");
    for (const int error : {EACCES, EIO, ELOOP, ENAMETOOLONG}) {
        platform().next_result("stat", {-1, error});
        EXPECT_FALSE(file_exists("/bootflash/image")) << error;
    }
}

} // namespace
