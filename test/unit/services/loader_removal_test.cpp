// Which files a request to install a boot loader may have removed.
#include "loader_removal.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

class FileBelow : public testing::Test
{
protected:
    FileBelow()
    {
        char name[] = "/tmp/loader_removal_test.XXXXXX";
        folder_ = ::mkdtemp(name);
        fs::create_directories(folder_ + "/top/sub");
        fs::create_directories(folder_ + "/topmost");
        for (const char *file : {"/top/file", "/top/sub/file", "/topmost/file", "/file"})
            std::ofstream(folder_ + file) << "content";
    }
    ~FileBelow() override { fs::remove_all(folder_); }

    bool is_below_top(const std::string &path) const { return is_file_below(path, {folder_ + "/top"}); }

    std::string folder_;
};

} // namespace

TEST_F(FileBelow, AFolderIsFoundAtAnyDepth)
{
    EXPECT_TRUE(is_below_top(folder_ + "/top/file"));
    EXPECT_TRUE(is_below_top(folder_ + "/top//sub/file"));
    EXPECT_TRUE(is_below_top(folder_ + "/top/sub/../file"));
    EXPECT_TRUE(is_file_below(folder_ + "/file", {"/nowhere", "/"}));
}

TEST_F(FileBelow, AFolderIsNotOneBesideIt)
{
    EXPECT_FALSE(is_below_top(folder_ + "/file"));
    EXPECT_FALSE(is_below_top(folder_ + "/topmost/file"));
    EXPECT_FALSE(is_below_top(folder_ + "/top/../file"));
    EXPECT_FALSE(is_below_top(folder_ + "/top/sub/../../topmost/file"));
    EXPECT_FALSE(is_file_below(folder_ + "/top/file", {}));
    EXPECT_FALSE(is_file_below(folder_ + "/top/file", {folder_ + "/none"}));
}

TEST_F(FileBelow, WhatIsNoRegularFileIsNone)
{
    ASSERT_EQ(::mkfifo((folder_ + "/top/fifo").c_str(), 0600), 0);
    fs::create_symlink(folder_ + "/top/file", folder_ + "/top/link");
    for (const char *name :
         {"/top/missing", "/top/sub", "/top/sub/", "/top/.", "/top/sub/..", "/top/fifo", "/top/link"})
        EXPECT_FALSE(is_below_top(folder_ + name)) << name;
    for (const char *path : {"", "/", "file", "top/file", "./file"})
        EXPECT_FALSE(is_file_below(path, {"/"})) << path;
}

TEST_F(FileBelow, LinksToFoldersAreFollowed)
{
    fs::create_directory_symlink(folder_ + "/topmost", folder_ + "/top/out");
    fs::create_directory_symlink(folder_ + "/top", folder_ + "/in");
    EXPECT_FALSE(is_below_top(folder_ + "/top/out/file"));
    EXPECT_TRUE(is_below_top(folder_ + "/in/file"));
    EXPECT_TRUE(is_file_below(folder_ + "/top/file", {folder_ + "/in"}));
}
