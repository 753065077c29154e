// Image URIs, loader files and the command runners.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "exec_cmd.h"
#include "flash_geometry.h"
#include "image_files.h"
#include "rest_of.h"
#include "temporary_folder.h"
#include "unique_fd.h"
#include "unpacking.h"

namespace
{

namespace fs = std::filesystem;

class Commands : public testing::Test
{
protected:
    std::string file(const std::string &name) const { return folder_.path(name); }
    std::string put(const std::string &name, const std::string &content) const
    {
        std::ofstream(file(name), std::ios::binary | std::ios::trunc) << content;
        return file(name);
    }
    std::string content_of(const std::string &name) const
    {
        std::ifstream stream(file(name), std::ios::binary);
        EXPECT_TRUE(stream) << name;
        return rest_of(stream);
    }

    temporary_folder folder_{"chassis_commands_test"};
};

// Image URIs

std::string mapped(const std::string &uri)
{
    char path[URI_MAPPED_PATH_BYTES];
    const char *result = uri_map_targetfs_path_get(uri.c_str(), path);
    return result != nullptr ? result : "null";
}

TEST(ImageUri, BootflashNamesAreMapped)
{
    EXPECT_EQ("/bootflash/image.bin", mapped("bootflash:image.bin"));
    EXPECT_EQ("/bootflash/image.bin", mapped("bootflash:/image.bin"));
    EXPECT_EQ("/bootflash/image.bin", mapped("bootflash:///image.bin"));
    EXPECT_EQ("/bootflash/folder/image.bin", mapped("bootflash:folder/image.bin"));
    EXPECT_EQ("/bootflash/..image..", mapped("bootflash:..image.."));
}

TEST(ImageUri, FileUrisAreMapped)
{
    EXPECT_EQ("/image.bin", mapped("file:///image.bin"));
    EXPECT_EQ("/var/tmp/image.bin", mapped("file:///var/tmp/image.bin"));
}

TEST(ImageUri, ShellCharactersAreNotJudged)
{
    EXPECT_EQ("/bootflash/a b;$(c)`d`", mapped("bootflash:a b;$(c)`d`"));
    EXPECT_EQ("/bootflash/\xc3\xa4", mapped("bootflash:\xc3\xa4"));
}

TEST(ImageUri, OtherSchemesAndShapesAreNotMapped)
{
    for (const char *uri : {"", "image.bin", "/bootflash/image.bin", "slot0:/image.bin", "slot0:image.bin",
                            "BOOTFLASH:image.bin", "bootflash", "bootflash://image.bin", "bootflash:////image.bin",
                            "file:/image.bin", "file://host/image.bin", "file:image.bin", "tftp://host/image.bin"})
        EXPECT_EQ("null", mapped(uri)) << uri;
}

TEST(ImageUri, NamesThatAreEmptyOrClimbAreNotMapped)
{
    for (const char *uri : {"bootflash:", "bootflash:/", "bootflash:///", "file:///", "bootflash:..",
                            "bootflash:../etc/passwd", "bootflash:a/../../b", "bootflash:a/..", "bootflash:.",
                            "bootflash:a//b", "bootflash:a/", "file:////a", "file:///a/../b", "file:///.."})
        EXPECT_EQ("null", mapped(uri)) << uri;
}

TEST(ImageUri, ControlCharactersAreNotMapped)
{
    for (const char *uri : {"bootflash:a\nb", "bootflash:\x1b[2J", "file:///a\x7f", "bootflash:a\t"})
        EXPECT_EQ("null", mapped(uri));
}

TEST(ImageUri, PathFillsTheBufferAtMost)
{
    const std::string longest(URI_MAPPED_PATH_BYTES - 1 - 11, 'x'); // behind "/bootflash/"
    EXPECT_EQ("/bootflash/" + longest, mapped("bootflash:" + longest));
    EXPECT_EQ("null", mapped("bootflash:" + longest + "x"));
}

TEST(ImageUri, NullIsRefused)
{
    char path[URI_MAPPED_PATH_BYTES];
    EXPECT_EQ(nullptr, uri_map_targetfs_path_get(nullptr, path));
    EXPECT_EQ(nullptr, uri_map_targetfs_path_get("bootflash:a", nullptr));
}

// Loader files

class LoaderFile : public Commands
{
protected:
    std::string version_of(const std::string &content)
    {
        const char *version = srg_sw_interim_ver_file_get(put("loader", content).c_str());
        return version != nullptr ? version : "null";
    }
};

TEST_F(LoaderFile, VersionStandsBetweenTheTagAndItsEnd)
{
    EXPECT_EQ("1.7.3", version_of("$$SRG-LOADER-VERSION: 1.7.3$$"));
    EXPECT_EQ("a $ b", version_of(std::string("\x7f"
                                              "ELF\0\0\xff",
                                              7) +
                                  "$$SRG-LOADER-VERSION: a $ b$$ rest $$"));
    EXPECT_EQ(std::string(255, 'v'), version_of("$$SRG-LOADER-VERSION: " + std::string(255, 'v') + "$$"));
}

TEST_F(LoaderFile, VersionIsFoundOnlyInTheFirstFourKilobytes)
{
    const std::string tag = "$$SRG-LOADER-VERSION: 1.7.3$$";
    EXPECT_EQ("1.7.3", version_of(std::string(4096 - tag.size(), '.') + tag));
    EXPECT_EQ("null", version_of(std::string(4096 - tag.size() + 1, '.') + tag));
}

TEST_F(LoaderFile, MalformedVersionIsNone)
{
    EXPECT_EQ("null", version_of(""));
    EXPECT_EQ("null", version_of("no tag"));
    EXPECT_EQ("null", version_of("$$SRG-LOADER-VERSION: $$"));
    EXPECT_EQ("null", version_of("$$SRG-LOADER-VERSION: 1.7.3"));
    EXPECT_EQ("null", version_of("$$SRG-LOADER-VERSION: 1.7\n3$$"));
    EXPECT_EQ("null", version_of(std::string("$$SRG-LOADER-VERSION: 1\0$$", 25)));
    EXPECT_EQ("null", version_of("$$SRG-LOADER-VERSION: 1.7\xff$$"));
    EXPECT_EQ("null", version_of("$$SRG-LOADER-VERSION: " + std::string(256, 'v') + "$$"));
}

TEST_F(LoaderFile, UnreadableFileHasNoVersion)
{
    EXPECT_EQ(nullptr, srg_sw_interim_ver_file_get(file("absent").c_str()));
    EXPECT_EQ(nullptr, srg_sw_interim_ver_file_get(folder_.path().c_str()));
    EXPECT_EQ(nullptr, srg_sw_interim_ver_file_get(nullptr));
    ASSERT_EQ(0, ::mkfifo(file("fifo").c_str(), 0600));
    EXPECT_EQ(nullptr, srg_sw_interim_ver_file_get(file("fifo").c_str()));
}

TEST_F(LoaderFile, CloneCopiesExactlyTheLength)
{
    const std::string path = put("loader", "0123456789");
    std::vector<char> bytes(12, '#');
    ASSERT_EQ(0, srg_file_clone(bytes.data(), path.c_str(), 4));
    EXPECT_EQ("0123########", std::string(bytes.begin(), bytes.end()));
    ASSERT_EQ(0, srg_file_clone(bytes.data(), path.c_str(), 10));
    EXPECT_EQ("0123456789##", std::string(bytes.begin(), bytes.end()));
    EXPECT_EQ(0, srg_file_clone(nullptr, path.c_str(), 0));
}

TEST_F(LoaderFile, CloneReportsWhatFailed)
{
    const std::string path = put("loader", "0123456789");
    std::vector<char> bytes(12, '#');
    EXPECT_EQ(EIO, srg_file_clone(bytes.data(), path.c_str(), 11));
    EXPECT_EQ('#', bytes[10]);
    EXPECT_EQ(ENOENT, srg_file_clone(bytes.data(), file("absent").c_str(), 1));
    EXPECT_EQ(EISDIR, srg_file_clone(bytes.data(), folder_.path().c_str(), 1));
    EXPECT_EQ(EINVAL, srg_file_clone(nullptr, path.c_str(), 1));
    EXPECT_EQ(EINVAL, srg_file_clone(bytes.data(), nullptr, 1));
}

// Command runners

using Runner = Commands;

TEST_F(Runner, ResultIsTheWaitStatus)
{
    EXPECT_EQ(0, exec_cmd_with_io_print("exit 0", nullptr, nullptr, nullptr, 0));
    const int32_t exited = exec_cmd_with_io_print("exit 7", nullptr, nullptr, nullptr, 0);
    EXPECT_TRUE(WIFEXITED(exited));
    EXPECT_EQ(7, WEXITSTATUS(exited));
    const int32_t killed = exec_cmd_with_files_print("kill -9 $$", nullptr, nullptr, nullptr, 0);
    EXPECT_TRUE(WIFSIGNALED(killed));
    EXPECT_EQ(SIGKILL, WTERMSIG(killed));
    const int32_t missing = exec_cmd_with_files_print("/no/such/tool", nullptr, nullptr, "/dev/null", 0);
    EXPECT_EQ(127, WEXITSTATUS(missing));
}

TEST_F(Runner, NullCommandIsRefused)
{
    EXPECT_EQ(-1, exec_cmd_with_io_print(nullptr, nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, exec_cmd_with_files_print(nullptr, nullptr, nullptr, nullptr, 0));
}

TEST_F(Runner, StreamsAreConnected)
{
    FILE *input = std::fopen(put("in", "hello").c_str(), "r");
    FILE *output = std::fopen(file("out").c_str(), "w");
    FILE *error = std::fopen(file("err").c_str(), "w");
    (void)std::fputs("before ", output); // still in the caller's buffer
    EXPECT_EQ(0, exec_cmd_with_io_print("cat; echo oops >&2", input, output, error, 0));
    for (FILE *stream : {input, output, error})
        (void)std::fclose(stream);
    EXPECT_EQ("before hello", content_of("out"));
    EXPECT_EQ("oops\n", content_of("err"));
}

TEST_F(Runner, OwnStreamsMayBeExchanged)
{
    // In a process of its own, whose standard streams go to files.
    const pid_t child = ::fork();
    if (child == 0) {
        if (std::freopen(file("out").c_str(), "w", stdout) == nullptr ||
            std::freopen(file("err").c_str(), "w", stderr) == nullptr)
            ::_exit(99);
        const char *command = "echo to-output; echo to-error >&2";
        int32_t result = exec_cmd_with_io_print(command, nullptr, stderr, stdout, 0);
        result |= exec_cmd_with_io_print("echo own", nullptr, nullptr, nullptr, 0);
        ::_exit(result == 0 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    ASSERT_EQ(0, status);
    EXPECT_EQ("to-error\nown\n", content_of("out"));
    EXPECT_EQ("to-output\n", content_of("err"));
}

TEST_F(Runner, StreamWithAClosedDescriptorIsClosedForTheCommand)
{
    const pid_t child = ::fork();
    if (child == 0) {
        (void)::close(STDIN_FILENO);
        const std::string command = "read line; echo \"read $?\" >" + file("out");
        ::_exit(exec_cmd_with_io_print(command.c_str(), stdin, stdout, stderr, 0) == 0 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_NE(content_of("out"), "read 0\n");
    EXPECT_NE(content_of("out"), "");
}

TEST_F(Runner, FilesAreCreatedAndTruncated)
{
    put("out", "much older and longer content");
    EXPECT_EQ(0, exec_cmd_with_files_print("cat; echo oops >&2", put("in", "hello").c_str(), file("out").c_str(),
                                           file("err").c_str(), 0));
    EXPECT_EQ("hello", content_of("out"));
    EXPECT_EQ("oops\n", content_of("err"));
}

TEST_F(Runner, OneFileTakesBothStreams)
{
    EXPECT_EQ(0, exec_cmd_with_files_print("echo one; echo two >&2; echo three", nullptr, file("both").c_str(),
                                           file("both").c_str(), 0));
    EXPECT_EQ("one\ntwo\nthree\n", content_of("both"));
}

TEST_F(Runner, NoInputFileIsNoInput)
{
    EXPECT_EQ(0, exec_cmd_with_files_print("cat; echo end", nullptr, file("out").c_str(), nullptr, 0));
    EXPECT_EQ("end\n", content_of("out"));
}

TEST_F(Runner, FilesThatCannotBeOpenedEndInAnErrorAndNoCommand)
{
    const std::string command = "touch " + file("ran");
    EXPECT_EQ(-1, exec_cmd_with_files_print(command.c_str(), file("absent").c_str(), nullptr, nullptr, 0));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, exec_cmd_with_files_print(command.c_str(), nullptr, file("no/out").c_str(), nullptr, 0));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(fs::exists(file("ran")));
}

TEST_F(Runner, PlantedLinkIsNotFollowed)
{
    put("victim", "precious");
    fs::create_symlink(file("victim"), file("out"));
    EXPECT_EQ(-1, exec_cmd_with_files_print("echo gone", nullptr, file("out").c_str(), nullptr, 0));
    EXPECT_EQ(ELOOP, errno);
    EXPECT_EQ("precious", content_of("victim"));
}

// Neither one that nobody reads nor one whose reader may let the command wait.
TEST_F(Runner, PlantedFifoIsRefusedAtOnce)
{
    ASSERT_EQ(0, ::mkfifo(file("out").c_str(), 0600));
    EXPECT_EQ(-1, exec_cmd_with_files_print("echo gone", nullptr, file("out").c_str(), nullptr, 0));
    EXPECT_EQ(ENXIO, errno);
    const unique_fd reader(::open(file("out").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(reader);
    EXPECT_EQ(-1, exec_cmd_with_files_print("echo gone", nullptr, file("out").c_str(), nullptr, 0));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(Runner, DeviceTakesTheOutput)
{
    EXPECT_EQ(0, exec_cmd_with_files_print("echo gone", nullptr, "/dev/null", "/dev/null", 0));
}

TEST_F(Runner, OtherChildrenStayForTheirParent)
{
    const pid_t other = ::fork();
    if (other == 0)
        ::_exit(12);
    siginfo_t ended{};
    ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(other), &ended, WEXITED | WNOWAIT)); // it is a zombie by now
    EXPECT_EQ(0, exec_cmd_with_io_print("exit 0", nullptr, nullptr, nullptr, 0));
    int status = 0;
    ASSERT_EQ(other, ::waitpid(-1, &status, WNOHANG));
    EXPECT_EQ(12, WEXITSTATUS(status));
    EXPECT_EQ(-1, ::waitpid(-1, &status, WNOHANG)); // and the command was reaped
}

void on_alarm(int) {}

TEST_F(Runner, SignalDoesNotEndTheWait)
{
    struct sigaction action {
    };
    action.sa_handler = on_alarm; // without SA_RESTART
    struct sigaction before {
    };
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, &before));
    // So many signals that some arrive while the caller waits.
    const std::string command =
        "i=0; while [ $i -lt 2000 ]; do kill -USR1 " + std::to_string(::getpid()) + "; i=$((i + 1)); done; exit 3";
    const int32_t result = exec_cmd_with_files_print(command.c_str(), nullptr, nullptr, nullptr, 0);
    EXPECT_EQ(3, WEXITSTATUS(result));
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &before, nullptr));
}

TEST_F(Runner, DescriptorsDoNotLeak)
{
    const auto open_files = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = open_files();
    (void)exec_cmd_with_files_print("exit 0", nullptr, file("out").c_str(), file("err").c_str(), 0);
    (void)exec_cmd_with_files_print("exit 0", nullptr, file("no/out").c_str(), nullptr, 0);
    (void)exec_cmd_with_io_print("exit 0", stdin, stdout, stderr, 0);
    EXPECT_EQ(before, open_files());
    // The listing goes through a pipe: only a descriptor left over in the command would name the file.
    (void)exec_cmd_with_files_print("ls -l /proc/self/fd | grep -c listing", nullptr, file("listing").c_str(),
                                    nullptr, 0);
    EXPECT_EQ("0\n", content_of("listing"));
}

// Bounds of what commands write. The card of these tests has no flash: an image may be as large as a flash can be.

class Unpacking : public Commands
{
protected:
    // Packs what a command prints, as the image that is to be unpacked.
    void pack(const std::string &printed_by)
    {
        const std::string command = printed_by + " | gzip >" + packed_;
        ASSERT_EQ(0, exec_cmd_with_io_print(command.c_str(), nullptr, nullptr, nullptr, 0));
    }
    int32_t unpack() const
    {
        return exec_cmd_with_files_print(("/bin/gunzip " + packed_).c_str(), nullptr, nullptr, file("err").c_str(),
                                         0);
    }

    const std::string image_ = file("image.bin");
    const std::string packed_ = image_ + ".gz";
};

TEST_F(Runner, FilesOfACommandAreBounded)
{
    const auto make = [&](std::uint64_t bytes) {
        const std::string command = "truncate -s " + std::to_string(bytes) + " " + file("made");
        return exec_cmd_with_files_print(command.c_str(), nullptr, nullptr, "/dev/null", 0);
    };
    EXPECT_EQ(0, make(COMMAND_FILE_BYTES_MAX));
    EXPECT_NE(0, make(COMMAND_FILE_BYTES_MAX + 1));
    EXPECT_EQ(COMMAND_FILE_BYTES_MAX, fs::file_size(file("made")));
}

TEST_F(Runner, BoundEndsACommandAlsoWhereTheCallerIgnoresItsSignal)
{
    const auto before = std::signal(SIGXFSZ, SIG_IGN);
    const std::string command = "truncate -s 1G " + file("made");
    const int32_t status = exec_cmd_with_files_print(command.c_str(), nullptr, nullptr, "/dev/null", 0);
    (void)std::signal(SIGXFSZ, before);
    EXPECT_TRUE(WIFSIGNALED(status) ? WTERMSIG(status) == SIGXFSZ : WEXITSTATUS(status) == 128 + SIGXFSZ) << status;
}

TEST_F(Unpacking, MakesTheImage)
{
    pack("echo whole");
    EXPECT_EQ(0, unpack());
    EXPECT_EQ("whole\n", content_of("image.bin"));
    EXPECT_FALSE(fs::exists(packed_));
}

// 257 MiB of zeros are 260 KiB.
TEST_F(Unpacking, StopsAtTheFlashsSizeAndLeavesAnEmptyFile)
{
    EXPECT_EQ(FLASH_MAX_BYTES, command_file_bytes_max("/bin/gunzip " + packed_));
    pack("head -c " + std::to_string(FLASH_MAX_BYTES + 1) + " /dev/zero");
    EXPECT_NE(0, unpack());
    EXPECT_FALSE(fs::exists(packed_));
    EXPECT_EQ(0U, fs::file_size(image_));
}

TEST_F(Unpacking, LeavesNothingOfADamagedImage)
{
    pack("seq 100000");
    fs::resize_file(packed_, fs::file_size(packed_) / 2);
    EXPECT_NE(0, unpack());
    EXPECT_FALSE(fs::exists(packed_));
    EXPECT_FALSE(fs::exists(image_));
}

// What follows the packed data is passed over with a warning, and the image is whole.
TEST_F(Unpacking, KeepsAnImageWithSomethingBehindIt)
{
    pack("echo whole");
    std::ofstream(packed_, std::ios::binary | std::ios::app) << "something else";
    EXPECT_NE(0, unpack());
    EXPECT_EQ("whole\n", content_of("image.bin"));
}

TEST_F(Unpacking, FailedCopyLeavesNoPartOfTheImage)
{
    const std::string command = "/bin/cp " + put("small", "x") + " /dev/full " + packed_;
    put("image.bin.gz", "a part");
    EXPECT_NE(0, exec_cmd_with_files_print(command.c_str(), nullptr, nullptr, "/dev/null", 0));
    EXPECT_FALSE(fs::exists(packed_));
}

TEST_F(Unpacking, OtherCommandsLoseNothing)
{
    const std::vector<std::string> commands = {"/bin/gunzip " + file("kept"), "/bin/gunzip 'a;b.gz'",
                                               "false " + packed_};
    for (const std::string &command : commands) {
        put("image.bin.gz", "kept");
        put("kept", "kept");
        EXPECT_NE(0, exec_cmd_with_files_print(command.c_str(), nullptr, nullptr, "/dev/null", 0));
        EXPECT_EQ("kept", content_of("image.bin.gz"));
        EXPECT_EQ("kept", content_of("kept"));
    }
}

} // namespace
