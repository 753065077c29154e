// Boot-loader tools: bios_image and nbitool as built, and what init-system does to the partition, with calls of the
// system that fail.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <linux/capability.h>

#include "image_error.h"
#include "image_files.h"
#include "image_tool_test.h"
#include "loader_file.h"
#include "loader_replacement.h"
#include "unique_fd.h"

namespace
{

namespace files = std::filesystem;

// What the calls below do instead of the system's; every one of them does the right thing again after the test.
struct call_faults {
    std::optional<int> write_error;
    bool write_wrong_byte = false;
    unsigned fsync_fails_at = 0; // number of the call, from 1 on
    unsigned fsyncs = 0;
    bool exchange_unknown = false;
    std::optional<int> rename_error;
};
call_faults faults;

} // namespace

extern "C" {
ssize_t __real_write(int fd, const void *bytes, std::size_t length);
int __real_fsync(int fd);
int __real_renameat2(int from_fd, const char *from, int to_fd, const char *to, unsigned flags);

ssize_t __wrap_write(int fd, const void *bytes, std::size_t length)
{
    if (faults.write_error) {
        errno = *faults.write_error;
        return -1;
    }
    if (!faults.write_wrong_byte || length == 0)
        return __real_write(fd, bytes, length);
    std::string wrong(static_cast<const char *>(bytes), length);
    wrong[length / 2] = static_cast<char>(wrong[length / 2] ^ 1);
    return __real_write(fd, wrong.data(), length);
}

int __wrap_fsync(int fd)
{
    if (++faults.fsyncs != faults.fsync_fails_at)
        return __real_fsync(fd);
    errno = EIO;
    return -1;
}

int __wrap_renameat2(int from_fd, const char *from, int to_fd, const char *to, unsigned flags)
{
    if (faults.rename_error || (faults.exchange_unknown && flags == RENAME_EXCHANGE)) {
        errno = faults.rename_error.value_or(EINVAL);
        return -1;
    }
    return __real_renameat2(from_fd, from, to_fd, to, flags);
}
}

namespace
{

std::size_t entries_in(const std::string &folder)
{
    return static_cast<std::size_t>(std::distance(files::directory_iterator(folder), {}));
}

class LoaderTools : public image_tool_test
{
protected:
    LoaderTools() : image_tool_test("loader-tools") {}
    ~LoaderTools() override
    {
        for (const std::string &left : mount_points()) // of a test that failed
            (void)::umount2(left.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW);
    }

    std::string make_loader(const std::string &name, const std::string &version, const std::string &payload)
    {
        write_file(path("payload"), payload);
        EXPECT_EQ(run("bios_image loader --output " + path(name) + " --version " + version + " --payload " +
                      path("payload")),
                  0)
            << errors();
        return content_of(path(name));
    }
    std::string version_in(const std::string &name) const
    {
        const char *version = srg_sw_interim_ver_file_get(path(name).c_str());
        return version != nullptr ? version : "none";
    }

    // What is mounted below the test's folder.
    std::vector<std::string> mount_points() const
    {
        std::vector<std::string> found;
        std::ifstream table("/proc/self/mounts");
        for (std::string source, place, rest; table >> source >> place && std::getline(table, rest);) {
            if (place.starts_with(path("")))
                found.push_back(place);
        }
        return found;
    }
};

using LoaderFile = LoaderTools;

TEST_F(LoaderFile, HasItsVersionInTheHeadAndThePayloadBehindIt)
{
    const std::string payload = random_bytes(5000);
    const std::string loader = make_loader("loader", "1.7.3", payload);
    EXPECT_EQ(version_in("loader"), "1.7.3");
    EXPECT_EQ(loader.size(), LOADER_HEAD_BYTES + payload.size());
    EXPECT_TRUE(loader.substr(LOADER_HEAD_BYTES) == payload);
}

TEST_F(LoaderFile, HasTheSizeThatIsAskedFor)
{
    ASSERT_EQ(run("bios_image loader --output " + path("loader") + " --version '2.0 (9)' --size 64K"), 0)
        << errors();
    EXPECT_EQ(files::file_size(path("loader")), 64u << 10);
    EXPECT_EQ(version_in("loader"), "2.0 (9)");
    ASSERT_EQ(run("bios_image loader --output " + path("loader") + " --version 2 --size 64"), 0) << errors();
    EXPECT_EQ(files::file_size(path("loader")), 64u << 20);
}

TEST_F(LoaderFile, IsNotMadeWithAVersionThatNoReaderWouldFind)
{
    for (const std::string &version : {std::string("''"), std::string("'a$$b'"), std::string("'a$'"),
                                       std::string("\"$(printf 'a\\tb')\""), std::string(256, 'v')}) {
        EXPECT_EQ(run("bios_image loader --output " + path("loader") + " --version " + version), 1) << version;
        EXPECT_NE(errors().find("printable"), std::string::npos) << errors();
        EXPECT_FALSE(files::exists(path("loader")));
    }
    ASSERT_EQ(run("bios_image loader --output " + path("loader") + " --version " + std::string(255, 'v')), 0);
    EXPECT_EQ(version_in("loader"), std::string(255, 'v'));
}

TEST_F(LoaderFile, IsNotMadeWhenThePayloadDoesNotFit)
{
    write_file(path("payload"), std::string(4097, 'x'));
    EXPECT_EQ(
        run("bios_image loader --output " + path("loader") + " --version 1 --size 8K --payload " + path("payload")),
        1);
    EXPECT_NE(errors().find("does not fit"), std::string::npos) << errors();
    EXPECT_FALSE(files::exists(path("loader")));
    files::resize_file(path("payload"), (64u << 20) - LOADER_HEAD_BYTES + 1);
    EXPECT_EQ(run("bios_image loader --output " + path("loader") + " --version 1 --payload " + path("payload")), 1);
}

TEST_F(LoaderFile, IsShownWithItsVersion)
{
    (void)make_loader("loader", "1.7.3", "payload");
    ASSERT_EQ(run("bios_image show " + path("loader")), 0) << errors();
    EXPECT_EQ(output(), "version  1.7.3 (boot loader)\nsize     4103 bytes\n");
    write_file(path("other"), "neither");
    EXPECT_EQ(run("bios_image show " + path("other")), 1);
    EXPECT_NE(errors().find("neither a BIOS header nor the version of a boot loader"), std::string::npos)
        << errors();
}

class Nbitool : public LoaderTools
{
protected:
    Nbitool() { loader_ = make_loader("loader", "1.7.3", random_bytes(300'000)); }

    void make_image(const std::string &loader_name = "loader")
    {
        ASSERT_EQ(run("bios_image system --output " + path("image") + " --loader " + path(loader_name)), 0)
            << errors();
    }
    int nbitool(const std::string &arguments, const std::string &before = {})
    {
        return run(before + "nbitool -t " + path("") + " " + arguments);
    }
    int open(const std::string &names = "x_ramfs x_mntpt")
    {
        return nbitool("open " + path("image") + " " + names);
    }
    int close(const std::string &names = "x_ramfs x_mntpt") { return nbitool("close " + names); }
    std::string opened(const std::string &mount_point = "x_mntpt") const
    {
        return path("nbitool/mnt/" + mount_point + "/etc/srg-sloader.sro");
    }
    // Line of the mount table for the mount point; empty when nothing is mounted there.
    std::string mounted(const std::string &mount_point = "x_mntpt") const
    {
        std::ifstream table("/proc/self/mounts");
        const std::string place = " " + path("nbitool/mnt/" + mount_point) + " ";
        for (std::string line; std::getline(table, line);) {
            if (line.find(place) != std::string::npos)
                return line;
        }
        return {};
    }
    // Nothing but the folders themselves.
    void expect_nothing_open() const
    {
        EXPECT_EQ(mounted(), "");
        EXPECT_EQ(entries_in(path("nbitool")), 1u);
        EXPECT_EQ(entries_in(path("nbitool/mnt")), 0u);
    }
    void expect_refusal(const std::string &reason)
    {
        EXPECT_EQ(open(), 1);
        EXPECT_NE(errors().find(reason), std::string::npos) << errors();
        EXPECT_FALSE(files::exists(opened()));
    }
    // Of a member with this name only; nothing when the archiver does not know how.
    void make_tar(const std::string &member, const std::string &command)
    {
        const std::string work = path("work");
        files::create_directories(files::path(work + "/" + member).parent_path());
        ASSERT_EQ(std::system(("cd " + work + " && " + command + " && tar cf " + path("image") + " *").c_str()), 0);
    }

    std::string loader_;
};

bool may_mount()
{
    return std::system("unshare --mount mount -t tmpfs none /mnt 2>/dev/null") == 0;
}

// A process that may do anything but mount.
class without_mounts
{
public:
    template<class Story>
    static void tell(Story story)
    {
        const pid_t child = ::fork();
        if (child == 0) {
            // Given up by the process itself and, by the bounding set, by what it runs.
            (void)::prctl(PR_CAPBSET_DROP, CAP_SYS_ADMIN);
            story();
            std::fflush(nullptr);
            ::_exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
};

TEST_F(Nbitool, UnpacksTheLoaderOntoARamFileSystemAndTakesItAway)
{
    if (::geteuid() != 0 || !may_mount())
        GTEST_SKIP() << "needs the right to mount";
    make_image();
    ASSERT_EQ(open(), 0) << errors();
    EXPECT_TRUE(content_of(opened()) == loader_);
    EXPECT_EQ(mounted().find("x_ramfs " + path("nbitool/mnt/x_mntpt") + " tmpfs "), 0u) << mounted();
    ASSERT_EQ(close(), 0) << errors();
    expect_nothing_open();
}

TEST_F(Nbitool, UnpacksTheLoaderIntoAFolderWhereItMayNotMount)
{
    make_image();
    without_mounts::tell([&] {
        ASSERT_EQ(open(), 0) << errors();
        EXPECT_TRUE(content_of(opened()) == loader_);
        EXPECT_EQ(mounted(), "");
        ASSERT_EQ(close(), 0) << errors();
        expect_nothing_open();
    });
}

TEST_F(Nbitool, FindsTheLoaderBesideBiosImages)
{
    write_file(path("bios"), random_bytes(50'000));
    ASSERT_EQ(run("bios_image system --output " + path("image") + " --bios a.gz=" + path("bios") + " --loader " +
                  path("loader")),
              0)
        << errors();
    ASSERT_EQ(open(), 0) << errors();
    EXPECT_TRUE(content_of(opened()) == loader_);
    EXPECT_EQ(close(), 0) << errors();
}

TEST_F(Nbitool, KeepsTwoImagesApart)
{
    make_image();
    ASSERT_EQ(open("x_ramfs x_mntpt"), 0) << errors();
    ASSERT_EQ(open("y_ramfs y_mntpt"), 0) << errors();
    EXPECT_EQ(close("x_ramfs x_mntpt"), 0) << errors();
    EXPECT_TRUE(content_of(opened("y_mntpt")) == loader_);
    EXPECT_EQ(close("y_ramfs y_mntpt"), 0) << errors();
    expect_nothing_open();
}

TEST_F(Nbitool, RefusesASecondOpenOfEitherName)
{
    make_image();
    ASSERT_EQ(open(), 0) << errors();
    for (const char *names : {"x_ramfs x_mntpt", "x_ramfs y_mntpt", "y_ramfs x_mntpt"}) {
        EXPECT_EQ(open(names), 1) << names;
        EXPECT_NE(errors().find("already"), std::string::npos) << errors();
    }
    EXPECT_TRUE(content_of(opened()) == loader_);
    EXPECT_FALSE(files::exists(path("nbitool/y_ramfs")));
    EXPECT_EQ(close(), 0) << errors();
    expect_nothing_open();
}

TEST_F(Nbitool, ClosesOnlyWhatIsOpenUnderBothNames)
{
    make_image();
    EXPECT_EQ(close(), 1);
    ASSERT_EQ(open(), 0) << errors();
    for (const char *names : {"y_ramfs x_mntpt", "x_ramfs y_mntpt", "x_mntpt x_ramfs"}) {
        EXPECT_EQ(close(names), 1) << names;
        EXPECT_NE(errors().find("is not open"), std::string::npos) << errors();
    }
    EXPECT_TRUE(content_of(opened()) == loader_);
    EXPECT_EQ(close(), 0) << errors();
    EXPECT_EQ(close(), 1);
}

TEST_F(Nbitool, RefusesNamesThatLeadElsewhere)
{
    make_image();
    for (const std::string &name :
         {std::string(".."), std::string("."), std::string("a/b"), std::string("../x"), std::string("''"),
          std::string("'a b'"), std::string("\"$(printf 'a\\nb')\""), std::string(64, 'n')}) {
        for (const char *command : {"open image ", "close "}) {
            const std::string words =
                std::string(command == std::string("close ") ? "close " : "open " + path("image"));
            EXPECT_EQ(nbitool(words + " " + name + " x_mntpt"), 1) << name;
            EXPECT_NE(errors().find("a name is"), std::string::npos) << errors();
            EXPECT_EQ(nbitool(words + " x_ramfs " + name), 1) << name;
            EXPECT_NE(errors().find("a name is"), std::string::npos) << errors();
        }
    }
    EXPECT_EQ(open("mnt x_mntpt"), 1); // the folder of the mount points
    expect_nothing_open();
    EXPECT_EQ(open(std::string(63, 'n') + " x_mntpt"), 0) << errors();
    EXPECT_EQ(close(std::string(63, 'n') + " x_mntpt"), 0) << errors();
}

TEST_F(Nbitool, LeavesNothingOfAnImageWithoutALoader)
{
    write_file(path("bios"), "bios");
    ASSERT_EQ(run("bios_image system --output " + path("image") + " --bios a.gz=" + path("bios")), 0);
    expect_refusal("has no member etc/srg-sloader.sro");
    for (const char *command :
         {"ln -s /etc/passwd etc/srg-sloader.sro", "mkdir etc/srg-sloader.sro", "mkfifo etc/srg-sloader.sro"}) {
        files::remove_all(path("work"));
        make_tar("etc/srg-sloader.sro", command);
        expect_refusal("etc/srg-sloader.sro is");
    }
}

TEST_F(Nbitool, LeavesNothingOfWhatIsNoImage)
{
    write_file(path("image"), "plain text, and longer than nothing");
    expect_refusal("nbitool: " + path("image"));
    files::remove(path("image"));
    expect_refusal("nbitool: " + path("image"));
    files::create_directory(path("image"));
    expect_refusal("is not a regular file");
    files::remove(path("image"));
    ASSERT_EQ(::mkfifo(path("image").c_str(), 0600), 0);
    expect_refusal("is not a regular file"); // and does not wait for a writer
}

TEST_F(Nbitool, LeavesNothingOfAnImageThatIsCutShort)
{
    make_tar("etc/srg-sloader.sro", "cp ../loader etc/srg-sloader.sro");
    files::resize_file(path("image"), 200'000);
    expect_refusal("runcated");
    expect_nothing_open();
    EXPECT_EQ(close(), 1);
}

TEST_F(Nbitool, TakesALoaderOf64MiBAndNoneThatIsLarger)
{
    write_file(path("large"), loader_);
    files::resize_file(path("large"), 64u << 20);
    make_image("large");
    ASSERT_EQ(open(), 0) << errors();
    EXPECT_EQ(files::file_size(opened()), 64u << 20);
    ASSERT_EQ(close(), 0) << errors();

    files::resize_file(path("large"), (64u << 20) + 1);
    make_image("large");
    expect_refusal("is larger than 64 MiB");
    expect_nothing_open();
}

TEST_F(Nbitool, DoesNotGoThroughAPlantedLink)
{
    make_image();
    files::create_directories(path("outside/mnt"));
    files::create_directory_symlink(path("outside"), path("nbitool"));
    expect_refusal("folder nbitool");
    files::remove(path("nbitool"));
    files::create_directory(path("nbitool"));
    files::create_directory_symlink(path("outside"), path("nbitool/mnt"));
    expect_refusal("folder mnt");
    EXPECT_EQ(entries_in(path("outside")), 1u);
    EXPECT_EQ(entries_in(path("outside/mnt")), 0u);

    files::remove(path("nbitool/mnt"));
    write_file(path("precious"), "");
    files::create_symlink(path("precious"), path("nbitool/x_ramfs"));
    expect_refusal("x_ramfs");
    EXPECT_EQ(content_of(path("precious")), "");
    files::remove(path("nbitool/x_ramfs"));
    files::create_directory_symlink(path("outside"), path("nbitool/mnt/x_mntpt"));
    expect_refusal("x_mntpt: is in use already");
    EXPECT_EQ(entries_in(path("outside")), 1u);
}

TEST_F(Nbitool, UsesNoFolderThatOthersMayWriteTo)
{
    make_image();
    files::create_directory(path("nbitool"));
    ASSERT_EQ(::chmod(path("nbitool").c_str(), 0777), 0);
    expect_refusal("others may write to it");
    EXPECT_EQ(entries_in(path("nbitool")), 0u);
    ASSERT_EQ(::chmod(path("nbitool").c_str(), 0755), 0);
    if (::geteuid() != 0)
        return; // the rest needs a second user
    ASSERT_EQ(::chown(path("nbitool").c_str(), 65534, 65534), 0);
    expect_refusal("others may write to it");
    EXPECT_EQ(entries_in(path("nbitool")), 0u);
}

TEST_F(Nbitool, TakesAwayWhatAKilledOpenHasLeft)
{
    make_image();
    files::create_directories(path("nbitool/mnt/x_mntpt/etc"));
    write_file(opened(), "half of it");
    write_file(path("nbitool/x_ramfs"), "x_mntpt\n");
    ASSERT_EQ(open(), 0) << errors();
    EXPECT_TRUE(content_of(opened()) == loader_);
    EXPECT_EQ(close(), 0) << errors();
    expect_nothing_open();
}

TEST_F(Nbitool, LeavesAnOpenAloneThatIsUnderWay)
{
    make_image();
    files::create_directories(path("nbitool/mnt/x_mntpt"));
    write_file(path("nbitool/x_ramfs"), "x_mntpt\n");
    const unique_fd held(::open(path("nbitool/x_ramfs").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(::flock(held.get(), LOCK_EX), 0);
    EXPECT_EQ(open(), 1);
    EXPECT_NE(errors().find("x_ramfs: is in use already"), std::string::npos) << errors();
    EXPECT_EQ(close(), 1);
    EXPECT_TRUE(files::exists(path("nbitool/mnt/x_mntpt")));
}

TEST_F(Nbitool, TellsWrongUsageByItsExitStatus)
{
    for (const char *words : {"", "open", "open image x_ramfs", "open image x_ramfs x_mntpt more", "close x_ramfs",
                              "close x_ramfs x_mntpt more", "show x_ramfs", "-x close x_ramfs x_mntpt"}) {
        EXPECT_EQ(nbitool(words), 64) << words;
        EXPECT_EQ(errors().find("usage: nbitool"), words[0] == '-' ? errors().find("usage") : 0u) << errors();
    }
}

using InitSystem = LoaderTools;

TEST_F(InitSystem, TellsWrongUsageByItsExitStatus)
{
    for (const char *words : {"", "-b", "x_mntpt", "-c x_mntpt", "-b x_mntpt more"})
        EXPECT_EQ(run("init-system " + std::string(words)), 64) << words;
}

// Before anything is mounted.
TEST_F(InitSystem, FailsWithoutAnOpenImage)
{
    EXPECT_EQ(run("init-system -b no_such_image_is_open"), 1);
    EXPECT_EQ(errors().find("init-system: "), 0u) << errors();
    EXPECT_EQ(errors().find("partition"), std::string::npos) << errors();
    EXPECT_EQ(run("init-system -b ../../../etc"), 1);
    EXPECT_NE(errors().find("a name is"), std::string::npos) << errors();
}

class LoaderReplacement : public LoaderTools
{
protected:
    LoaderReplacement()
    {
        files::create_directory(path("partition"));
        write_file(installed(), OLD);
        write_file(path("loader"), new_);
    }
    ~LoaderReplacement() override { faults = {}; }

    void replace() const
    {
        const unique_fd folder(::open(path("partition").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const unique_fd loader(::open(path("loader").c_str(), O_RDONLY | O_CLOEXEC));
        replace_loader(folder.get(), loader.get());
    }
    // Why the loader was not replaced; the faults last no longer than that.
    std::string refusal() const
    {
        std::string reason;
        try {
            replace();
        } catch (const image_error &failure) {
            reason = failure.what();
        }
        faults = {};
        return reason;
    }
    void expect_only(const std::string &content) const
    {
        EXPECT_TRUE(content_of(installed()) == content);
        EXPECT_EQ(entries_in(path("partition")), 1u);
    }
    std::string installed() const { return path("partition/srg-sloader.sro"); }

    static constexpr const char *OLD = "the old loader";
    const std::string new_ = random_bytes(1'000'000);
};

TEST_F(LoaderReplacement, PutsTheNewLoaderInThePlaceOfTheOld)
{
    replace();
    expect_only(new_);
    EXPECT_EQ(faults.fsyncs, 2u); // the file, and the folder
    EXPECT_EQ(files::status(installed()).permissions(), files::perms(0644));
}

TEST_F(LoaderReplacement, PutsALoaderIntoAnEmptyPartition)
{
    files::remove(installed());
    replace();
    expect_only(new_);
}

TEST_F(LoaderReplacement, KeepsTheOldLoaderWhenThePartitionIsFull)
{
    faults.write_error = ENOSPC;
    EXPECT_EQ(refusal(), "the new loader cannot be written: No space left on device");
    expect_only(OLD);
}

TEST_F(LoaderReplacement, KeepsTheOldLoaderWhenAnotherWasWritten)
{
    faults.write_wrong_byte = true;
    EXPECT_EQ(refusal(), "what was written to the partition differs from the new loader");
    expect_only(OLD);
}

TEST_F(LoaderReplacement, KeepsTheOldLoaderWhenTheNewOneCannotBeSynced)
{
    faults.fsync_fails_at = 1;
    EXPECT_EQ(refusal(), "the new loader cannot be written: Input/output error");
    expect_only(OLD);
}

TEST_F(LoaderReplacement, PutsTheOldLoaderBackWhenThePartitionCannotBeSynced)
{
    faults.fsync_fails_at = 2;
    EXPECT_EQ(refusal(), "the partition cannot be synced: Input/output error");
    expect_only(OLD);
    files::remove(installed());
    faults.fsync_fails_at = 2;
    EXPECT_EQ(refusal(), "the partition cannot be synced: Input/output error");
    EXPECT_EQ(entries_in(path("partition")), 0u);
}

TEST_F(LoaderReplacement, KeepsTheOldLoaderWhenTheNewOneCannotTakeItsPlace)
{
    faults.rename_error = EROFS;
    EXPECT_EQ(refusal(), "the new loader cannot take its place: Read-only file system");
    expect_only(OLD);
}

TEST_F(LoaderReplacement, WorksWhereFilesCannotChangePlaces)
{
    faults.exchange_unknown = true;
    replace();
    expect_only(new_);
}

TEST_F(LoaderReplacement, RefusesAnEmptyLoader)
{
    write_file(path("loader"), "");
    EXPECT_EQ(refusal(), "the new loader is empty");
    expect_only(OLD);
}

TEST_F(LoaderReplacement, RefusesAPlaceThatHoldsNoFile)
{
    files::remove(installed());
    files::create_directory(installed());
    EXPECT_EQ(refusal(), "what is in the place of the loader is not a regular file");
    EXPECT_TRUE(files::is_directory(installed()));
    EXPECT_EQ(entries_in(path("partition")), 1u);
}

TEST_F(LoaderReplacement, RemovesWhatAKilledOneHasLeft)
{
    write_file(path("partition/.srg-sloader.sro.new"), "half of it");
    replace();
    expect_only(new_);
}

TEST_F(LoaderReplacement, IsDoneByOneProcessAtATime)
{
    const unique_fd other(::open(path("partition").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
    EXPECT_NE(refusal().find("in use by another installation"), std::string::npos);
    expect_only(OLD);
}

} // namespace
