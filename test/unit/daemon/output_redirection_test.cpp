// Standard output and standard error, sent into a file and back.
#include "output_redirection.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon_test.h"
#include "record_forms.h"
#include "saved_streams.h"
#include "unique_fd.h"

namespace
{

bool recorded = false; // the calls below are told and may fail by the test's script

bool fails(const std::string &call, const std::string &arguments)
{
    return recorded && platform().called(call, arguments).value != 0;
}

} // namespace

extern "C" {

int __real_dup(int fd);
int __real_dup2(int from, int to);

int __wrap_dup(int fd)
{
    return fails("dup", text(fd)) ? -1 : __real_dup(fd);
}

int __wrap_dup2(int from, int to)
{
    return fails("dup2", (from == 0 ? "0" : "fd") + (", " + text(to))) ? -1 : __real_dup2(from, to);
}

} // extern "C"

namespace
{

constexpr char log_file[] = "/tmp/install_loader.log";

class OutputRedirection : public daemon_test
{
protected:
    OutputRedirection()
    {
        error_file_ = std::tmpfile();
        ::dup2(::fileno(error_file_), 2);
        recorded = true;
    }
    ~OutputRedirection() override
    {
        recorded = false;
        std::fclose(error_file_);
    }

    static void print(const std::string &text)
    {
        std::printf("%s out\n", text.c_str());
        std::fflush(stdout);
        std::fprintf(stderr, "%s err\n", text.c_str());
    }
    std::string standard_error()
    {
        std::rewind(error_file_);
        char content[200] = {};
        const std::size_t length = std::fread(content, 1, sizeof content - 1, error_file_);
        return {content, length};
    }
    static bool is_same_file(int one, int other)
    {
        struct stat a = {};
        struct stat b = {};
        return ::fstat(one, &a) == 0 && ::fstat(other, &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
    }

    saved_streams saved_;
    std::FILE *error_file_;
};

TEST_F(OutputRedirection, SendsBothStreamsIntoTheFileAndBack)
{
    platform().write_file(log_file, "of the last time, which was longer than this one");
    const std::ptrdiff_t descriptors = open_descriptors();
    output_redirection redirection(log_file);
    print("meanwhile");
    redirection.restore();
    print("afterwards");
    EXPECT_EQ(platform().read_file(log_file), "meanwhile out\nmeanwhile err\n");
    EXPECT_EQ(standard_error(), "afterwards err\n");
    EXPECT_EQ(printed(), "afterwards out\n");
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(platform().calls("open"), lines{"open(\"/tmp/install_loader.log\", O_WRONLY|O_CREAT|O_TRUNC)"});
}

TEST_F(OutputRedirection, LosesNothingThatWasPrintedBefore)
{
    std::printf("before\n"); // in the buffer still
    output_redirection redirection(log_file);
    std::printf("meanwhile\n");
    redirection.restore();
    EXPECT_EQ(platform().read_file(log_file), "meanwhile\n");
    EXPECT_EQ(printed(), "before\n");
}

TEST_F(OutputRedirection, StaysInTheFileWhenItIsKept)
{
    const std::ptrdiff_t descriptors = open_descriptors();
    output_redirection redirection(log_file);
    redirection.keep();
    print("for good");
    EXPECT_EQ(platform().read_file(log_file), "for good out\nfor good err\n");
    EXPECT_EQ(open_descriptors(), descriptors) << "the saved streams";
}

TEST_F(OutputRedirection, ConnectsBothStreamsToDescriptorZeroWhenTheFileCannotBeOpened)
{
    platform().next_result("open", {-1, EACCES});
    output_redirection redirection(log_file);
    print("meanwhile");
    EXPECT_EQ(standard_error(), "meanwhile err\n");
    EXPECT_EQ(platform().calls("dup2"), lines{});
    redirection.restore();
    EXPECT_EQ(platform().calls("dup2"), (lines{"dup2(0, 1)", "dup2(0, 2)"}));
    EXPECT_TRUE(is_same_file(saved_[0], 1));
    EXPECT_TRUE(is_same_file(saved_[0], 2));
    EXPECT_EQ(::fcntl(0, F_GETFD), -1) << "descriptor 0 is closed";
    EXPECT_EQ(platform().calls("dup"), lines{});
}

TEST_F(OutputRedirection, KeepsDescriptorZeroWhenTheFileCannotBeOpenedAndNothingIsRestored)
{
    platform().next_result("open", {-1, EACCES});
    output_redirection redirection(log_file);
    redirection.keep();
    EXPECT_TRUE(is_same_file(saved_[0], 0));
    EXPECT_EQ(platform().calls("dup2"), lines{});
}

TEST_F(OutputRedirection, LeavesBothStreamsWhenOneCannotBeSaved)
{
    for (const int good : {0, 1}) {
        const std::ptrdiff_t descriptors = open_descriptors();
        if (good == 1)
            platform().next_result("dup", {0, 0});
        platform().next_result("dup", {-1, EMFILE});
        output_redirection redirection(log_file);
        EXPECT_EQ(open_descriptors(), descriptors) << good;
        print("meanwhile");
        redirection.restore();
        redirection.keep();
        EXPECT_EQ(platform().read_file(log_file), "");
    }
    EXPECT_EQ(platform().calls("dup2"), lines{});
    EXPECT_EQ(standard_error(), "meanwhile err\nmeanwhile err\n");
    EXPECT_EQ(printed(), "meanwhile out\nmeanwhile out\n");
}

TEST_F(OutputRedirection, LeavesBothStreamsWhenOutputCannotBeSent)
{
    const std::ptrdiff_t descriptors = open_descriptors();
    platform().next_result("dup2", {-1, EBUSY});
    output_redirection redirection(log_file);
    EXPECT_EQ(open_descriptors(), descriptors);
    print("meanwhile");
    redirection.restore();
    EXPECT_EQ(platform().calls("dup2"), lines{"dup2(fd, 1)"});
    EXPECT_EQ(platform().read_file(log_file), "");
    EXPECT_EQ(standard_error(), "meanwhile err\n");
}

TEST_F(OutputRedirection, PutsOutputBackWhenErrorsCannotBeSent)
{
    const std::ptrdiff_t descriptors = open_descriptors();
    platform().next_result("dup2", {0, 0});
    platform().next_result("dup2", {-1, EBUSY});
    output_redirection redirection(log_file);
    EXPECT_EQ(open_descriptors(), descriptors);
    print("meanwhile");
    redirection.restore();
    EXPECT_EQ(platform().calls("dup2"), (lines{"dup2(fd, 1)", "dup2(fd, 2)", "dup2(fd, 1)"}));
    EXPECT_EQ(platform().read_file(log_file), "");
    EXPECT_EQ(printed(), "meanwhile out\n");
}

// What somebody else has put under the name of the log.
class PlantedLog : public OutputRedirection
{
protected:
    PlantedLog() { platform().write_file("/tmp/precious", "precious"); }

    void expect_put_away()
    {
        output_redirection redirection(log_file);
        print("meanwhile");
        redirection.restore();
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(log_)));
        EXPECT_EQ(platform().read_file(log_file), "meanwhile out\nmeanwhile err\n");
        EXPECT_EQ(platform().read_file("/tmp/precious"), "precious");
        std::filesystem::remove(log_);
    }
    void expect_not_used()
    {
        output_redirection(log_file).keep();
        print("meanwhile");
        EXPECT_EQ(standard_error(), "meanwhile err\n");
        EXPECT_EQ(platform().read_file("/tmp/precious"), "precious");
    }

    const std::string precious_ = platform().path("/tmp/precious");
    const std::string log_ = platform().path(log_file);
};

TEST_F(PlantedLog, IsPutAwayWhenItIsALink)
{
    ASSERT_EQ(::symlink(precious_.c_str(), log_.c_str()), 0);
    expect_put_away();
}

TEST_F(PlantedLog, IsPutAwayWhenItIsASecondNameOfAnotherFile)
{
    ASSERT_EQ(::link(precious_.c_str(), log_.c_str()), 0);
    expect_put_away();
}

TEST_F(PlantedLog, IsPutAwayWhenItIsAFifoOrAnEmptyFolder)
{
    ASSERT_EQ(::mkfifo(log_.c_str(), 0600), 0);
    expect_put_away();
    ASSERT_EQ(::mkdir(log_.c_str(), 0700), 0);
    expect_put_away();
}

TEST_F(PlantedLog, IsPutAwayWhenItIsAnotherUsersFile)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to give a file to another user";
    platform().write_file(log_file, "of another user");
    ASSERT_EQ(::chown(log_.c_str(), 65534, 65534), 0);
    expect_put_away();
}

TEST_F(PlantedLog, IsNotUsedWhenItIsAFolderWithSomethingInIt)
{
    std::filesystem::create_directories(log_ + "/full");
    expect_not_used();
}

// Planted between the look and the opening.
TEST_F(PlantedLog, IsNotUsedWhenItIsAFifoAtTheLastMoment)
{
    unique_fd reader;
    platform().when("open(\"/tmp/install_loader.log\"", [&] {
        ASSERT_EQ(::mkfifo(log_.c_str(), 0600), 0);
        reader.reset(::open(log_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    });
    expect_not_used();
}

TEST_F(PlantedLog, IsNotUsedWhenItIsALinkAtTheLastMoment)
{
    platform().when("open(\"/tmp/install_loader.log\"",
                    [&] { ASSERT_EQ(::symlink(precious_.c_str(), log_.c_str()), 0); });
    expect_not_used();
}

} // namespace
