// Installation of a boot loader from a system image, with the tools of the card.
#include <filesystem>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bios_opcodes.h"
#include "bios_results.h"
#include "loader_chassis.h"

namespace
{

namespace files = std::filesystem;

constexpr const char *INSTALL_LOG = "/tmp/install_loader.log";
constexpr std::size_t PATH_FIELD_BYTES = 200;

class LoaderInstall : public loader_chassis
{
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root";
        up_with_loader();
        next_ = make_loader("1.8.0");
    }
    // A loader with this version is installed by the next request.
    void expect_next_succeeds()
    {
        const test_loader last = make_loader("9.9");
        EXPECT_EQ(install(make_system_image("last.bin", last.path)), BIOS_OK);
        expect_installed(last);
        expect_serves();
    }
    std::string tool_output() const { return file_content(card_file(1, INSTALL_LOG)); }

    test_loader next_;
};
INSTANTIATE_TEST_SUITE_P(In, LoaderInstall, testing::ValuesIn(ISOLATIONS), name_of_isolation);

// The partition is a file system of its own, mounted inside of the card.
class LoaderInstallWithMounts : public LoaderInstall
{
protected:
    void SetUp() override
    {
        LoaderInstall::SetUp();
        if (!IsSkipped() && !has_own_mounts())
            GTEST_SKIP() << "needs mounts in the card";
    }
    // With the first loader on it. options: of the file system, or of a change that is made afterwards.
    void mount_partition(const std::string &options)
    {
        const bool later = options.starts_with("remount");
        mount(later ? "size=1m" : options);
        ASSERT_EQ(in_card({"cp", "/etc/srg-ks.sro", INSTALLED}).exit_code, 0);
        if (later)
            mount(options);
    }
    void expect_old_loader_on_it()
    {
        EXPECT_EQ(in_card({"cmp", "/etc/srg-ks.sro", INSTALLED}).exit_code, 0);
        EXPECT_EQ(in_card({"ls", "-A", PARTITION}).output, "srg-sloader.sro\n");
        EXPECT_EQ(in_card({"umount", PARTITION}).exit_code, 0);
        expect_nothing_left();
    }

private:
    static constexpr const char *PARTITION = "/var/lib/bootloader";

    void mount(const std::string &options)
    {
        const finished_program mounted = in_card({"mount", "-t", "tmpfs", "-o", options, "small", PARTITION});
        ASSERT_EQ(mounted.exit_code, 0) << mounted.errors;
    }
};
INSTANTIATE_TEST_SUITE_P(In, LoaderInstallWithMounts, testing::Values("auto"), name_of_isolation);

// In a user namespace, whose mounts have to keep what is forbidden on the file system outside of it.
class LoaderInstallOfAnOrdinaryUser : public chassis_test
{
protected:
    // The chassis lies on a file system of its own, which only this process and its children see.
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root to become another user";
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", workspace().c_str(), "tmpfs", MS_NOSUID | MS_NODEV, nullptr) != 0)
            GTEST_SKIP() << "needs the right to mount";
        if (run_program({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "unshare", "--user",
                         "--map-root-user", "--mount", "--pid", "--fork", "true"})
                .exit_code != 0)
            GTEST_SKIP() << "an ordinary user may not make user namespaces here";
        run_as_ordinary_user();
    }
    void TearDown() override
    {
        chassis_test::TearDown();
        (void)::umount2(workspace().c_str(), MNT_DETACH);
    }
};

} // namespace

TEST_P(LoaderInstall, PutsTheLoaderOfTheImageIntoThePartition)
{
    const std::string image = make_system_image("system.bin", next_.path);
    EXPECT_EQ(install(image), BIOS_OK) << tool_output();
    expect_installed(next_);
    expect_nothing_left();
    EXPECT_TRUE(card_has(1, image));

    const unsigned lines = lines_with(1, "opc=4702");
    expect_serves();
    EXPECT_EQ(lines_with(1, "opc=4702"), lines + 1) << "the daemon's output does not go to its log again";
    EXPECT_NE(chassis({"status", "--json"}).output.find("\"boot_loader_version\": \"1.8.0\""), std::string::npos);
}

TEST_P(LoaderInstall, PutsALoaderIntoAnEmptyPartition)
{
    files::remove(card_file(1, INSTALLED));
    EXPECT_EQ(install(make_system_image("system.bin", next_.path)), BIOS_OK) << tool_output();
    expect_installed(next_);
}

TEST_P(LoaderInstall, InstallsNothingWhenTheVersionIsTheSame)
{
    const test_loader same = make_loader("1.7.3");
    ASSERT_NE(same.bytes == first_loader().bytes, true);
    struct stat before = {};
    ASSERT_EQ(::stat(card_file(1, INSTALLED).c_str(), &before), 0);

    EXPECT_EQ(install(make_system_image("system.bin", same.path)), BIOS_LOADER_SAME_VERSION);

    struct stat after = {};
    ASSERT_EQ(::stat(card_file(1, INSTALLED).c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino) << "the loader was replaced";
    expect_installed(first_loader());
    expect_nothing_left();
    const unsigned lines = lines_with(1, "opc=4702");
    expect_serves();
    EXPECT_EQ(lines_with(1, "opc=4702"), lines + 1) << "the daemon's output does not go to its log again";
}

TEST_P(LoaderInstall, InstallsAnOlderVersion)
{
    const test_loader older = make_loader("0.1");
    EXPECT_EQ(install(make_system_image("system.bin", older.path)), BIOS_OK);
    expect_installed(older);
}

TEST_P(LoaderInstall, FailsWhenTheImageCannotBeOpenedAndLeavesItsOutputInTheLogFile)
{
    write_file(on_bootflash(1, "noimage.bin"), "no image");
    EXPECT_EQ(install("/bootflash/noimage.bin"), BIOS_LOADER_ERR_IMAGE);
    EXPECT_NE(tool_output().find("nbitool: /bootflash/noimage.bin: "), std::string::npos) << tool_output();

    const unsigned lines = lines_with(1, "opc=4702");
    expect_serves();
    EXPECT_EQ(lines_with(1, "opc=4702"), lines);
    EXPECT_NE(tool_output().find("opc=4702"), std::string::npos) << tool_output();
    expect_installed(first_loader());
    expect_nothing_left();
    expect_next_succeeds();
}

TEST_P(LoaderInstall, FailsForAMissingImageAndForOneWithoutALoader)
{
    EXPECT_EQ(install("/bootflash/missing.bin"), BIOS_LOADER_ERR_IMAGE);
    EXPECT_EQ(install(""), BIOS_LOADER_ERR_IMAGE);
    ::make_system_image(on_bootflash(1, "bios.bin"), 90, new_image());
    EXPECT_EQ(install("/bootflash/bios.bin"), BIOS_LOADER_ERR_IMAGE);
    EXPECT_NE(tool_output().find("has no member etc/srg-sloader.sro"), std::string::npos) << tool_output();
    expect_installed(first_loader());
    expect_next_succeeds();
}

TEST_P(LoaderInstall, FailsForALoaderWithoutAVersion)
{
    write_file(workspace() + "/unversioned", "a loader without a version");
    EXPECT_EQ(install(make_system_image("system.bin", workspace() + "/unversioned")), BIOS_LOADER_ERR_NO_VERSION);
    expect_installed(first_loader());
    expect_nothing_left();
    expect_next_succeeds();
}

TEST_P(LoaderInstall, FailsWhenThePartitionCannotBeMounted)
{
    const std::string table = file_content(card_file(1, "/etc/fstab"));
    const std::string image = make_system_image("system.bin", next_.path);
    take_mount_away();
    EXPECT_EQ(install(image), BIOS_LOADER_ERR_MOUNT);
    EXPECT_NE(tool_output().find("/etc/fstab"), std::string::npos) << tool_output();
    expect_installed(first_loader());
    expect_nothing_left();
    write_file(card_file(1, "/etc/fstab"), table);

    files::rename(card_file(1, "/var/lib/bootloader"), card_file(1, "/var/lib/away"));
    EXPECT_EQ(install(image), BIOS_LOADER_ERR_MOUNT);
    (void)chassis({"status", "--json"}); // makes no new partition
    EXPECT_FALSE(card_has(1, "/var/lib/bootloader"));
    files::rename(card_file(1, "/var/lib/away"), card_file(1, "/var/lib/bootloader"));
    expect_installed(first_loader());
    expect_next_succeeds();
}

// A folder in the loader's place cannot be replaced.
TEST_P(LoaderInstall, FailsWhenTheLoaderCannotBeReplaced)
{
    files::remove(card_file(1, INSTALLED));
    files::create_directory(card_file(1, INSTALLED));
    EXPECT_EQ(install(make_system_image("system.bin", next_.path)), BIOS_LOADER_ERR_INSTALL);
    EXPECT_NE(tool_output().find("init-system: what is in the place"), std::string::npos) << tool_output();
    EXPECT_TRUE(files::is_directory(card_file(1, INSTALLED)));
    EXPECT_TRUE(files::is_empty(card_file(1, INSTALLED)));
    expect_nothing_left();
    files::remove(card_file(1, INSTALLED));
    expect_next_succeeds();
}

TEST_P(LoaderInstallWithMounts, KeepsTheOldLoaderWhenThePartitionIsFull)
{
    mount_partition("size=300k"); // a loader has 256 KiB
    EXPECT_EQ(install(make_system_image("system.bin", next_.path)), BIOS_LOADER_ERR_INSTALL);
    EXPECT_NE(tool_output().find("No space left on device"), std::string::npos) << tool_output();
    expect_old_loader_on_it();
    expect_next_succeeds();
}

TEST_P(LoaderInstallWithMounts, KeepsTheOldLoaderWhenThePartitionIsReadOnly)
{
    mount_partition("remount,ro");
    EXPECT_EQ(install(make_system_image("system.bin", next_.path)), BIOS_LOADER_ERR_INSTALL);
    EXPECT_NE(tool_output().find("Read-only file system"), std::string::npos) << tool_output();
    expect_old_loader_on_it();
    expect_next_succeeds();
}

TEST_P(LoaderInstall, RemovesTheImageOnlyWhenAskedTo)
{
    const std::string image = make_system_image("system.bin", next_.path);
    EXPECT_EQ(install(image, 0), BIOS_OK);
    EXPECT_TRUE(card_has(1, image));
    EXPECT_EQ(install(image, 0), BIOS_LOADER_SAME_VERSION);
    EXPECT_TRUE(card_has(1, image));
    EXPECT_EQ(install(image, 1), BIOS_LOADER_SAME_VERSION);
    EXPECT_FALSE(card_has(1, image));

    write_file(on_bootflash(1, "noimage.bin"), "no image");
    EXPECT_EQ(install("/bootflash/noimage.bin", 0), BIOS_LOADER_ERR_IMAGE);
    EXPECT_TRUE(card_has(1, "/bootflash/noimage.bin"));
    EXPECT_EQ(install("/bootflash/noimage.bin", 0x80000000), BIOS_LOADER_ERR_IMAGE);
    EXPECT_FALSE(card_has(1, "/bootflash/noimage.bin"));

    const test_loader other = make_loader("2.0");
    EXPECT_EQ(install(make_system_image("other.bin", other.path), 0x00010000), BIOS_OK);
    EXPECT_FALSE(card_has(1, "/bootflash/other.bin"));
    expect_installed(other);
    expect_serves();
}

TEST_P(LoaderInstall, RemovesNothingButFilesOfTheBootFlash)
{
    files::create_symlink("/etc/srg-ks.sro", on_bootflash(1, "link.bin"));
    for (const char *path : {"/etc/srg-ks.sro", "/bootflash/../etc/srg-ks.sro", "/bootflash/link.bin", "/bootflash",
                             "/bootflash/", "/bootflash/missing.bin", "etc/srg-ks.sro", ""})
        EXPECT_EQ(install(path, 1), BIOS_ERR_URI) << path;
    EXPECT_TRUE(card_has(1, "/etc/srg-ks.sro"));
    EXPECT_TRUE(card_has(1, "/bootflash/link.bin"));

    write_file(slot_file(1, "policy"), "loader_folders = /etc\n");
    const std::string image = make_system_image("system.bin", next_.path);
    EXPECT_EQ(install(image, 1), BIOS_ERR_URI);
    write_file(slot_file(1, "policy"), "nonsense\n");
    EXPECT_EQ(install(image, 1), BIOS_ERR_URI);
    files::remove(slot_file(1, "policy"));
    EXPECT_TRUE(card_has(1, image));
    EXPECT_EQ(install(image, 1), BIOS_OK);
    EXPECT_FALSE(card_has(1, image));
    expect_serves();
}

TEST_P(LoaderInstall, RunsNothingThatAPathNames)
{
    const std::string image = make_system_image("system.bin", next_.path);
    for (const std::string &path :
         {image + ";touch /bootflash/owned", image + " x y; touch /bootflash/owned #",
          std::string("$(touch /bootflash/owned)"), std::string("`touch /bootflash/owned`"),
          image + "|touch /bootflash/owned", image + "\ntouch /bootflash/owned",
          image + "&touch${IFS}/bootflash/owned", std::string("-t /bootflash"), std::string("--help")}) {
        EXPECT_EQ(install(path), BIOS_LOADER_ERR_IMAGE) << path;
        EXPECT_FALSE(card_has(1, "/bootflash/owned")) << path;
    }
    expect_installed(first_loader());
    expect_next_succeeds();
}

TEST_P(LoaderInstall, CutsAPathWithoutAnEndAtTheEndOfItsField)
{
    const std::string longest = "/bootflash/" + std::string(PATH_FIELD_BYTES - 11, 'x');
    ASSERT_EQ(make_system_image(longest.substr(11), next_.path), longest);
    EXPECT_EQ(install(longest + "y", 0), BIOS_OK) << tool_output();
    expect_installed(next_);
    EXPECT_EQ(install(std::string(PATH_FIELD_BYTES, 'y'), 0), BIOS_LOADER_ERR_IMAGE);
    EXPECT_EQ(install(std::string(PATH_FIELD_BYTES, 'y'), 0xffffffff), BIOS_ERR_URI);
    EXPECT_EQ(install_with_body(std::string(204, '\xff')), BIOS_ERR_URI);
    EXPECT_EQ(install_with_body(""), BIOS_LOADER_ERR_IMAGE);
    expect_next_succeeds();
}

TEST_P(LoaderInstall, WaitsForNoWriterOfAPipe)
{
    ASSERT_EQ(::mkfifo(on_bootflash(1, "pipe").c_str(), 0600), 0);
    EXPECT_EQ(install("/bootflash/pipe"), BIOS_LOADER_ERR_IMAGE);
    expect_next_succeeds();
}

// What another user of the card has planted in its /tmp is not used.
TEST_P(LoaderInstall, DoesNotFollowAPlantedLink)
{
    files::create_directories(card_file(1, "/bootflash/outside/mnt"));
    files::create_directory_symlink("/bootflash/outside", card_file(1, "/tmp/nbitool"));
    EXPECT_EQ(install(make_system_image("system.bin", next_.path)), BIOS_LOADER_ERR_IMAGE);
    EXPECT_TRUE(files::is_empty(card_file(1, "/bootflash/outside/mnt")));
    files::remove(card_file(1, "/tmp/nbitool"));
    expect_installed(first_loader());
    expect_next_succeeds();
}

// A daemon that is killed in the middle of an installation: its successor may have the same process number, and so
// the same names.
TEST_P(LoaderInstall, IsNotHinderedByWhatAKilledDaemonLeft)
{
    const std::string image = make_system_image("system.bin", next_.path);
    const pid_t killed = daemon_pid(1);
    const std::string own_number =
        has_own_mounts() ? in_card({"pgrep", "bios_daemon"}).output : std::to_string(killed);
    const std::string number = own_number.substr(0, own_number.find('\n'));
    ASSERT_EQ(in_card({"/vesk/sbin/nbitool", "open", image, number + "_ramfs", number + "_mntpt"}).exit_code, 0);
    ASSERT_EQ(in_card({"/bin/mount", "-o", "ro", "/mnt/bootloader"}).exit_code, 0);
    ASSERT_EQ(::kill(killed, SIGKILL), 0);
    ASSERT_TRUE(wait_until([&] { return file_content(slot_file(1, "starts")).starts_with("2"); }));
    ASSERT_TRUE(wait_until([&] { return file_content(slot_file(1, "state")).starts_with("serving"); }));
    expect_nothing_left();
    EXPECT_EQ(install(image), BIOS_OK) << tool_output();
    expect_installed(next_);
}

TEST_F(LoaderInstallOfAnOrdinaryUser, WorksInAUserNamespace)
{
    insert({.slot = 1, .in_tree = nullptr});
    const std::string loader = workspace() + "/loader";
    ASSERT_EQ(run_program({BIOS_IMAGE_PROGRAM, "loader", "--output", loader, "--version", "1.8.0"}).exit_code, 0);
    up("user");
    ASSERT_EQ(
        run_program({BIOS_IMAGE_PROGRAM, "system", "--output", on_bootflash(1, "system.bin"), "--loader", loader})
            .exit_code,
        0);

    for (const int exit_code : {0, 2}) { // installed; the same version again
        const finished_program installing = biosctl({"loader", "install", "bootflash:system.bin"});
        EXPECT_EQ(installing.exit_code, exit_code) << installing.errors;
    }

    EXPECT_EQ(isolation(1), "user");
    EXPECT_EQ(file_content(card_file(1, "/var/lib/bootloader/srg-sloader.sro")) == file_content(loader), true);
    EXPECT_EQ(file_content("/proc/" + std::to_string(daemon_pid(1)) + "/mounts").find("bootloader"),
              std::string::npos);
}
