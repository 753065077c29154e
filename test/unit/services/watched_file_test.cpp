// Files that are looked at only when they may have changed.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "chassis_dir.h"
#include "temporary_folder.h"
#include "this_process.h"
#include "watched_file.h"

namespace
{

namespace fs = std::filesystem;

constexpr unsigned CALLS = 200; // more than go by before anything is watched
constexpr useconds_t SEVERAL_TICKS_US = 30'000;

class WatchedFile : public testing::Test
{
protected:
    void SetUp() override { attach(); }

    void attach() const { ASSERT_EQ(chassis_attach(chassis_->path(), 1), 0); }

    void write(const std::string &file, const std::string &text) const
    {
        fs::create_directories(fs::path(chassis_->path(file)).parent_path());
        std::ofstream(chassis_->path(file)) << text;
    }

    // Asks until it is watched and nothing has changed.
    static bool comes_to_rest(watched_file &file)
    {
        for (unsigned call = 0; call < CALLS; ++call)
            (void)file.may_have_changed();
        ::usleep(SEVERAL_TICKS_US);
        (void)file.may_have_changed();
        ::usleep(SEVERAL_TICKS_US);
        return !file.may_have_changed();
    }

    // Whether a change is told of, some ticks later, and then no more.
    static void expect_told(watched_file &file, const std::function<void()> &change, const char *what)
    {
        ASSERT_TRUE(comes_to_rest(file)) << what;
        change();
        ::usleep(SEVERAL_TICKS_US);
        EXPECT_TRUE(file.may_have_changed()) << what;
        EXPECT_TRUE(comes_to_rest(file)) << what;
    }

    std::unique_ptr<temporary_folder> chassis_ = std::make_unique<temporary_folder>("watched-file");
};

TEST_F(WatchedFile, MayHaveChangedEachTimeForWhoAsksSeldom)
{
    watched_file file("transport/rules");
    for (unsigned call = 0; call < 20; ++call)
        EXPECT_TRUE(file.may_have_changed());
}

TEST_F(WatchedFile, TellsOfEachKindOfChange)
{
    watched_file file("transport/rules");
    const std::string path = chassis_->path("transport/rules");
    expect_told(
        file, [&] { fs::create_directory(chassis_->path("transport")); }, "its folder was made");
    expect_told(
        file, [&] { write("transport/rules", "first"); }, "it was made");
    expect_told(
        file, [&] { write("transport/rules", "other"); }, "it was written");
    expect_told(
        file, [&] { std::ofstream(path, std::ios::app) << "more"; }, "it was extended");
    expect_told(
        file, [&] { fs::resize_file(path, 0); }, "it was emptied");
    expect_told(
        file,
        [&] {
            write("transport/fresh", "replaced");
            fs::rename(chassis_->path("transport/fresh"), path);
        },
        "it was replaced");
    expect_told(
        file, [&] { write("transport/rules", "written again"); }, "the replacement was written");
    expect_told(
        file, [&] { fs::rename(path, chassis_->path("elsewhere")); }, "it was moved away");
    expect_told(
        file, [&] { fs::rename(chassis_->path("elsewhere"), path); }, "it came back");
    expect_told(
        file, [&] { fs::remove(path); }, "it was removed");
    write("transport/rules", "last");
    expect_told(
        file, [&] { fs::remove_all(chassis_->path("transport")); }, "its folder was removed");
    expect_told(
        file, [&] { write("transport/rules", "anew"); }, "both were made anew");
}

TEST_F(WatchedFile, TellsOfTheChangeOfALinkedFile)
{
    write("rules", "text");
    fs::create_directory(chassis_->path("transport"));
    fs::create_symlink("../rules", chassis_->path("transport/rules"));
    watched_file file("transport/rules");
    expect_told(
        file, [&] { write("rules", "other"); }, "what the link leads to was written");
}

TEST_F(WatchedFile, AnotherFileChangesNothing)
{
    write("transport/rules", "text");
    write("transport/log", "text");
    watched_file file("transport/rules");
    ASSERT_TRUE(comes_to_rest(file));
    std::ofstream(chassis_->path("transport/log"), std::ios::app) << "line";
    ::usleep(SEVERAL_TICKS_US);
    EXPECT_FALSE(file.may_have_changed());
}

TEST_F(WatchedFile, EachAskerIsTold)
{
    write("rules", "text");
    watched_file first("rules");
    watched_file second("rules");
    ASSERT_TRUE(comes_to_rest(first));
    ASSERT_TRUE(comes_to_rest(second));
    write("rules", "other");
    ::usleep(SEVERAL_TICKS_US);
    EXPECT_TRUE(first.may_have_changed());
    EXPECT_TRUE(second.may_have_changed());
    EXPECT_FALSE(first.may_have_changed());
}

TEST_F(WatchedFile, OneThatIsAskedForLaterIsWatchedToo)
{
    watched_file first("rules");
    ASSERT_TRUE(comes_to_rest(first));
    write("later/rules", "text");
    watched_file second("later/rules");
    EXPECT_TRUE(second.may_have_changed());
    expect_told(
        second, [&] { write("later/rules", "other"); }, "it was written");
}

TEST_F(WatchedFile, AForkedChildTakesNothingFromItsParent)
{
    write("rules", "text");
    watched_file file("rules");
    ASSERT_TRUE(comes_to_rest(file));
    write("rules", "other");
    const pid_t child = ::fork();
    if (child == 0) {
        bool told = file.may_have_changed();
        told = told && comes_to_rest(file);
        write("rules", "third");
        ::usleep(SEVERAL_TICKS_US);
        ::_exit(told && file.may_have_changed() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "the child is told of its own";
    EXPECT_TRUE(file.may_have_changed()) << "the parent is told though its child was";
}

TEST_F(WatchedFile, FollowsItsProcessToAnotherChassis)
{
    watched_file file("rules");
    ASSERT_TRUE(comes_to_rest(file));
    const auto first = std::exchange(chassis_, std::make_unique<temporary_folder>("watched-file"));
    attach();
    EXPECT_TRUE(file.may_have_changed());
    expect_told(
        file, [&] { write("rules", "text"); }, "made in the second chassis");
}

TEST_F(WatchedFile, MayHaveChangedEachTimeWhenNothingCanBeWatched)
{
    watched_file file("rules");
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    const pid_t child = ::fork();
    if (child == 0) {
        (void)::setrlimit(RLIMIT_NOFILE, &none);
        bool told = true;
        for (unsigned call = 0; call < CALLS; ++call)
            told = told && file.may_have_changed();
        ::_exit(told ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(WatchedFile, KeepsErrno)
{
    watched_file file("rules");
    for (unsigned call = 0; call < CALLS; ++call) {
        errno = ELOOP;
        (void)file.may_have_changed();
        ASSERT_EQ(errno, ELOOP) << call;
    }
    ::usleep(SEVERAL_TICKS_US);
    errno = ELOOP;
    (void)file.may_have_changed();
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(WatchedFile, LeavesTheWorkingDirectoryWhereItWas)
{
    const fs::path before = fs::current_path();
    watched_file file("rules");
    ASSERT_TRUE(comes_to_rest(file));
    EXPECT_EQ(fs::current_path(), before);
}

TEST(ThisProcess, IsTheProcessInForkedChildrenToo)
{
    EXPECT_EQ(this_process(), ::getpid());
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(this_process() == ::getpid() ? 0 : 1);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

} // namespace
