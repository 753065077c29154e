// Which files a request to install a boot loader may have removed.
#include "loader_removal.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/stat.h>

#include "temporary_folder.h"

namespace
{

namespace fs = std::filesystem;

class FileBelow : public testing::Test
{
protected:
    FileBelow()
    {
        fs::create_directories(folder_.path("top/sub"));
        fs::create_directories(folder_.path("topmost"));
        for (const char *file : {"/top/file", "/top/sub/file", "/topmost/file", "/file"})
            std::ofstream(folder_.path() + file) << "content";
    }

    bool is_below_top(const std::string &path) const { return is_file_below(path, {folder_.path("top")}); }

    temporary_folder folder_{"loader_removal_test"};
};

} // namespace

TEST_F(FileBelow, AFolderIsFoundAtAnyDepth)
{
    EXPECT_TRUE(is_below_top(folder_.path("top/file")));
    EXPECT_TRUE(is_below_top(folder_.path("top//sub/file")));
    EXPECT_TRUE(is_below_top(folder_.path("top/sub/../file")));
    EXPECT_TRUE(is_file_below(folder_.path("file"), {"/nowhere", "/"}));
}

TEST_F(FileBelow, AFolderIsNotOneBesideIt)
{
    EXPECT_FALSE(is_below_top(folder_.path("file")));
    EXPECT_FALSE(is_below_top(folder_.path("topmost/file")));
    EXPECT_FALSE(is_below_top(folder_.path("top/../file")));
    EXPECT_FALSE(is_below_top(folder_.path("top/sub/../../topmost/file")));
    EXPECT_FALSE(is_file_below(folder_.path("top/file"), {}));
    EXPECT_FALSE(is_file_below(folder_.path("top/file"), {folder_.path("none")}));
}

TEST_F(FileBelow, WhatIsNoRegularFileIsNone)
{
    ASSERT_EQ(::mkfifo(folder_.path("top/fifo").c_str(), 0600), 0);
    fs::create_symlink(folder_.path("top/file"), folder_.path("top/link"));
    for (const char *name :
         {"/top/missing", "/top/sub", "/top/sub/", "/top/.", "/top/sub/..", "/top/fifo", "/top/link"})
        EXPECT_FALSE(is_below_top(folder_.path() + name)) << name;
    for (const char *path : {"", "/", "file", "top/file", "./file"})
        EXPECT_FALSE(is_file_below(path, {"/"})) << path;
}

TEST_F(FileBelow, LinksToFoldersAreFollowed)
{
    fs::create_directory_symlink(folder_.path("topmost"), folder_.path("top/out"));
    fs::create_directory_symlink(folder_.path("top"), folder_.path("in"));
    EXPECT_FALSE(is_below_top(folder_.path("top/out/file")));
    EXPECT_TRUE(is_below_top(folder_.path("in/file")));
    EXPECT_TRUE(is_file_below(folder_.path("top/file"), {folder_.path("in")}));
}
