// Installation of a boot loader: the tools in their order, and every result.
#include "loader_install.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "daemon_test.h"
#include "record_forms.h"
#include "saved_streams.h"

namespace
{
uid_t user_id = 0;
} // namespace

extern "C" uid_t __wrap_getuid()
{
    return user_id;
}

namespace
{

constexpr char image[] = "/bootflash/system.bin";
constexpr char log_file[] = "/tmp/install_loader.log";
constexpr char mount_line[] =
    "exec_cmd_with_io_print(\"/bin/mount -o ro /mnt/bootloader\", stdin, stdout, stderr, 0)";
constexpr char umount_line[] = "exec_cmd_with_io_print(\"/bin/umount /mnt/bootloader\", stdin, stdout, stderr, 0)";
constexpr char installed_line[] = "srg_sw_interim_ver_file_get(\"/mnt/bootloader/srg-sloader.sro\")";
constexpr int failed = 256; // wait status of a command that ended with exit status 1

std::string with_pid(const std::string &text)
{
    std::string named = text;
    for (std::size_t place = 0; (place = named.find("PID")) != std::string::npos;)
        named.replace(place, 3, std::to_string(::getpid()));
    return named;
}

std::string open_line(const std::string &path = image, const std::string &prefix = "")
{
    return with_pid("system(\"" + prefix + "/vesk/sbin/nbitool open " + path + " PID_ramfs PID_mntpt\")");
}

std::string close_line(const std::string &prefix = "")
{
    return with_pid("system(\"" + prefix + "/vesk/sbin/nbitool close PID_ramfs PID_mntpt\")");
}

const std::string loader_file = with_pid("/tmp/nbitool/mnt/PID_mntpt//etc/srg-sloader.sro");
const std::string in_image_line = "srg_sw_interim_ver_file_get(\"" + loader_file + "\")";
const std::string install_line =
    with_pid("exec_cmd_with_io_print(\"/vesk/sbin/init-system -b PID_mntpt\", stdin, stdout, stderr, 0)");

std::string answer(const std::string &status)
{
    return "cmi_response([00000000], 4, 7, #1, " + status + ")";
}

// An image with loader 2.0 lies on the boot flash; 1.0 is installed.
class LoaderInstall : public daemon_test
{
protected:
    LoaderInstall()
    {
        context.handle = 7;
        user_id = 0;
        platform().write_file(image, "an image");
        set_versions("2.0", "1.0");
    }

    static void set_versions(const std::string &in_image, const std::string &installed)
    {
        platform().version_texts["srg_sw_interim_ver_file_get, " + loader_file] = in_image;
        platform().version_texts["srg_sw_interim_ver_file_get, /mnt/bootloader/srg-sloader.sro"] = installed;
    }

    // Asks for an installation and tells what was done for it.
    lines install(const std::string &path = image, std::uint32_t remove_image = 0)
    {
        bytes body(204);
        std::copy(path.begin(), path.end(), body.begin());
        for (unsigned i = 0; i < 4; ++i)
            body[200 + i] = static_cast<std::uint8_t>(remove_image >> (24 - 8 * i));
        mts_message_t *message = platform().message(4700, request(body));
        EXPECT_EQ(handle_install_loader(context, message), 0u) << "the daemon goes on";
        return platform().story(
            {"system", "exec_cmd_with_io_print", "srg_sw_interim_ver_file_get", "remove", "cmi_response"});
    }

    daemon_context context{};
};

TEST_F(LoaderInstall, InstallsANewerLoader)
{
    EXPECT_EQ(install(), (lines{open_line(), in_image_line, mount_line, installed_line, umount_line, install_line,
                                close_line(), answer("0x0")}));
    EXPECT_EQ(platform().logs(), lines{});
    EXPECT_TRUE(platform().file_exists(image));
}

TEST_F(LoaderInstall, InstallsAnOlderLoaderToo)
{
    set_versions("0.9", "1.0");
    EXPECT_EQ(install().back(), answer("0x0"));
}

TEST_F(LoaderInstall, InstallsWhereNoLoaderIsInstalled)
{
    set_versions("2.0", "");
    EXPECT_EQ(install(), (lines{open_line(), in_image_line, mount_line, installed_line, umount_line, install_line,
                                close_line(), answer("0x0")}));
}

TEST_F(LoaderInstall, InstallsNothingOfTheSameVersion)
{
    set_versions("2.0", "2.0");
    const std::ptrdiff_t descriptors = open_descriptors();
    EXPECT_EQ(install(), (lines{open_line(), in_image_line, mount_line, installed_line, umount_line, close_line(),
                                answer("0x40530002")}));
    EXPECT_EQ(open_descriptors(), descriptors);
    std::printf("the daemon goes on\n");
    EXPECT_EQ(printed(), "the daemon goes on\n");
    EXPECT_EQ(platform().read_file(log_file), "");
}

TEST_F(LoaderInstall, ComparesAtMost255CharactersOfTheImagesVersion)
{
    set_versions(std::string(255, 'v') + "1", std::string(255, 'v'));
    EXPECT_EQ(install().back(), answer("0x40530002"));
}

TEST_F(LoaderInstall, KeepsTheImagesVersionWhileTheInstalledOneIsRead)
{
    set_versions("2.0", "2.0.1"); // the service has one buffer for both
    EXPECT_EQ(install().back(), answer("0x0"));
}

TEST_F(LoaderInstall, LeavesItsOutputInTheLogWhenTheImageCannotBeOpened)
{
    std::printf("before\n");
    {
        const saved_streams streams;
        const std::ptrdiff_t descriptors = open_descriptors();
        platform().next_result("system", {failed, 0});
        EXPECT_EQ(install(), (lines{open_line(), answer("0x40530004")})) << "no close command";
        EXPECT_EQ(open_descriptors(), descriptors) << "the saved streams are given up";
        std::printf("the daemon goes on\n");
        std::fprintf(stderr, "with errors\n");
    }
    EXPECT_EQ(platform().read_file(log_file), "with errors\nthe daemon goes on\n");
    EXPECT_EQ(printed(), "before\n");
}

TEST_F(LoaderInstall, ClosesTheImageWhenItsLoaderHasNoVersion)
{
    set_versions("", "1.0");
    EXPECT_EQ(install(), (lines{open_line(), in_image_line, close_line(), answer("0x40530005")}));
}

TEST_F(LoaderInstall, ClosesTheImageWhenThePartitionCannotBeMounted)
{
    platform().next_result("exec_cmd_with_io_print", {failed, 0});
    EXPECT_EQ(install(), (lines{open_line(), in_image_line, mount_line, close_line(), answer("0x40530006")}));
}

TEST_F(LoaderInstall, DoesNotCareWhetherTheUnmountingWorked)
{
    platform().next_result("exec_cmd_with_io_print", {0, 0});
    platform().next_result("exec_cmd_with_io_print", {failed, 0});
    EXPECT_EQ(install().back(), answer("0x0"));
}

TEST_F(LoaderInstall, TellsThatTheInstallationCommandFailed)
{
    platform().next_result("exec_cmd_with_io_print", {0, 0});
    platform().next_result("exec_cmd_with_io_print", {0, 0});
    platform().next_result("exec_cmd_with_io_print", {failed, 0});
    EXPECT_EQ(install(), (lines{open_line(), in_image_line, mount_line, installed_line, umount_line, install_line,
                                close_line(), answer("0x40530001")}));
}

TEST_F(LoaderInstall, DoesNotCareWhetherTheClosingWorked)
{
    platform().next_result("system", {0, 0});
    platform().next_result("system", {failed, 0});
    EXPECT_EQ(install().back(), answer("0x0"));
}

// What the tools print goes to the log, and what the daemon prints afterwards does not: after every end but that of
// an image that could not be opened.
TEST_F(LoaderInstall, RedirectsTheOutputForTheToolsAloneWhateverTheResult)
{
    struct installation {
        const char *status;
        const char *in_image;
        const char *installed;
        std::vector<int> command_results; // of exec_cmd_with_io_print
    };
    platform().when("system(\"/vesk/sbin/nbitool open", [] {
        std::printf("tool out\n");
        std::fflush(stdout);
        std::fprintf(stderr, "tool err\n");
    });
    std::string afterwards;
    int number = 0;
    for (const installation &each :
         {installation{"0x0", "2.0", "1.0", {}}, installation{"0x40530001", "2.0", "1.0", {0, 0, failed}},
          installation{"0x40530002", "2.0", "2.0", {}}, installation{"0x40530005", "", "1.0", {}},
          installation{"0x40530006", "2.0", "1.0", {failed}}}) {
        set_versions(each.in_image, each.installed);
        for (const int result : each.command_results)
            platform().next_result("exec_cmd_with_io_print", {result, 0});
        platform().write_file(image, "an image");
        const std::string answered = install(image, 1).back();
        EXPECT_EQ(answered,
                  "cmi_response([00000000], 4, 7, #" + std::to_string(++number) + ", " + each.status + ")");
        EXPECT_EQ(platform().read_file(log_file), "tool out\ntool err\n") << each.status;
        EXPECT_FALSE(platform().file_exists(image)) << each.status << ": the image is to be removed";
        std::printf("%s\n", each.status);
        afterwards += std::string(each.status) + "\n";
    }
    EXPECT_EQ(printed(), afterwards);
}

TEST_F(LoaderInstall, RemovesAnImageThatNoShellMaySee)
{
    const std::string odd = "/bootflash/a b";
    platform().write_file(odd, "an image");
    const saved_streams streams;
    EXPECT_EQ(install(odd, 1), (lines{"remove(\"/bootflash/a b\")", answer("0x40530004")}));
    EXPECT_FALSE(platform().file_exists(odd));
}

TEST_F(LoaderInstall, RunsNbitoolAsRoot)
{
    user_id = 1000;
    const lines story = install();
    EXPECT_EQ(story[0], open_line(image, "sudo "));
    EXPECT_EQ(story[5], install_line) << "without sudo";
    EXPECT_EQ(story[6], close_line("sudo "));
}

TEST_F(LoaderInstall, RemovesTheImageAfterSuccess)
{
    const lines story = install(image, 0x00010000);
    EXPECT_EQ(lines(story.end() - 3, story.end()),
              (lines{close_line(), "remove(\"/bootflash/system.bin\")", answer("0x0")}));
    EXPECT_FALSE(platform().file_exists(image));
}

TEST_F(LoaderInstall, RemovesTheImageAfterAFailureToo)
{
    const saved_streams streams;
    platform().next_result("system", {failed, 0});
    EXPECT_EQ(install(image, 1), (lines{open_line(), "remove(\"/bootflash/system.bin\")", answer("0x40530004")}));
    EXPECT_FALSE(platform().file_exists(image));
}

TEST_F(LoaderInstall, CutsAPathThatIsNotTerminated)
{
    const std::string path = "/bootflash/" + std::string(189, 'x');
    ASSERT_EQ(path.size(), 200u);
    EXPECT_EQ(install(path, 0xffffffff)[0], open_line(path)) << "without the flag's bytes behind it";
}

TEST_F(LoaderInstall, ShowsNoShellWhatIsNoPlainFileName)
{
    for (const std::string path :
         {"", "-rf", "/bootflash/a b", "/bootflash/$(reboot)", "/bootflash/a;reboot", "/bootflash/`reboot`",
          "/bootflash/a\nreboot", "/bootflash/a|b", "x'y", "x\"y"}) {
        const saved_streams streams;
        const lines story = install(path);
        EXPECT_EQ(platform().calls("system"), lines{}) << path;
        EXPECT_THAT(story.back(), testing::EndsWith("0x40530004)")) << path;
    }
    EXPECT_EQ(platform().logs(), lines(10, "ERROR: image path is not a plain file name, nothing is opened"));
}

TEST_F(LoaderInstall, RemembersThePayload)
{
    (void)install();
    ASSERT_NE(context.payload, nullptr);
    EXPECT_EQ(std::memcmp(static_cast<const char *>(context.payload) + 112, image, sizeof image), 0);
}

TEST_F(LoaderInstall, InstallsWithoutALogToo)
{
    const saved_streams streams;
    platform().next_result("open", {-1, EACCES});
    EXPECT_EQ(install().back(), answer("0x0"));
    EXPECT_EQ(::fcntl(0, F_GETFD), -1) << "descriptor 0 took the place of the saved streams";
}

} // namespace
