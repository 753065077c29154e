// Files that are copied to another card: a copy that fails leaves nothing old behind.
#include "standby_file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/resource.h>

#include "chassis_dir.h"
#include "rest_of.h"
#include "temporary_folder.h"

namespace
{

namespace fs = std::filesystem;

constexpr unsigned STANDBY = 2;

class StandbyFile : public testing::Test
{
protected:
    void SetUp() override
    {
        fs::create_directories(folder_.path("slots/2/root/bootflash"));
        ASSERT_EQ(chassis_attach(folder_.path(), 1), 0);
        write(folder_.path("source"), std::string(100'000, 'n'));
        write(destination(), "stale");
    }

    static void write(const std::string &path, const std::string &text) { std::ofstream(path) << text; }
    std::string destination() const { return folder_.path("slots/2/root/bootflash/image"); }
    std::string content() const
    {
        std::ifstream file(destination());
        return rest_of(file);
    }
    int place() const
    {
        return place_file_in_card_root(STANDBY, folder_.path("source").c_str(), "/bootflash/image");
    }
    std::ptrdiff_t files_there() const
    {
        return std::distance(fs::directory_iterator(fs::path(destination()).parent_path()), {});
    }

    temporary_folder folder_{"standby_file_test"};
};

} // namespace

TEST_F(StandbyFile, TakesTheOldOnesPlace)
{
    EXPECT_EQ(place(), 0);
    EXPECT_EQ(content(), std::string(100'000, 'n'));
    EXPECT_EQ(files_there(), 1);
}

TEST_F(StandbyFile, LeavesAnEmptyFileWhenTheCopyFails)
{
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    (void)std::signal(SIGXFSZ, SIG_IGN);
    const rlimit small = {4096, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const int result = place();
    const int error = errno;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EFBIG);
    EXPECT_TRUE(fs::exists(destination()));
    EXPECT_EQ(content(), "");
    EXPECT_EQ(files_there(), 1);
}
