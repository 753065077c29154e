// Extraction of the BIOS image into its temporary file, and the removal of both.
#include "image_extraction.h"

#include <cerrno>

#include "daemon_test.h"

namespace
{

constexpr char source[] = "/vesk/bin/bios-x86n.bin.gz";
constexpr char temporary[] = "/bootflash/.tmpbios.bin";
constexpr char gunzip[] = "exec_cmd_with_io_print(\"/bin/gunzip /bootflash/.tmpbios.bin.gz\"";

std::string run_quietly(const std::string &command)
{
    return "exec_cmd_with_files_print(\"" + command + "\", null, \"/dev/null\", \"/dev/null\", 0)";
}

std::string run(const std::string &command)
{
    return "exec_cmd_with_io_print(\"" + command + "\", stdin, stdout, stderr, 0)";
}

class ImageExtraction : public daemon_test
{
protected:
    static void unpacks(const char *image_content)
    {
        platform().when(gunzip, [image_content] { platform().write_file(temporary, image_content); });
    }
    static std::int32_t extract(const char *image) { return extract_bios_image(8, 11, image, source, temporary); }
    static std::int32_t clean_up() { return cleanup_temp_files(8, 11, nullptr, source, temporary); }
    static lines story()
    {
        return platform().story({"system", "exec_cmd_with_io_print", "exec_cmd_with_files_print", "sleep", "chdir",
                                 "unlink", "log", "sysmgr_cli_gsync_file"});
    }
    static std::string all_commands()
    {
        std::string text;
        for (const std::string &line :
             platform().story({"system", "popen", "exec_cmd_with_io_print", "exec_cmd_with_files_print"}))
            text += line + "\n";
        return text;
    }

    const std::string hand_over =
        "sysmgr_cli_gsync_file(8, 129, \"/bootflash/.tmpbios.bin\", \"/bootflash/.tmpbios.bin\", 1)";
    const std::string removal = "unlink(\"/bootflash/.tmpbios.bin\")";
};

TEST_F(ImageExtraction, CopiesAndUnpacksTheRunningSystemsImage)
{
    unpacks("the image");
    EXPECT_EQ(extract(nullptr), 0);
    EXPECT_EQ(
        story(),
        (lines{"system(\"rm -rf /var/tmp/core_plugin\")",
               "log(source path is = (null), /vesk/bin/bios-x86n.bin.gz, /bootflash/.tmpbios.bin)",
               run("/bin/mkdir -p /bootflash"), "log(executing /bin/mkdir -p /bootflash)", "chdir(\"/bootflash\")",
               "log(dest path=/bootflash/.tmpbios.bin)", "log(current dir=/bootflash)",
               run_quietly("/bin/cp /vesk/bin/bios-x86n.bin.gz /bootflash/.tmpbios.bin.gz"),
               "log(performing /bin/cp /vesk/bin/bios-x86n.bin.gz /bootflash/.tmpbios.bin.gz)", removal,
               "log( **** REMOVE **** - /bootflash/.tmpbios.bin)", run("/bin/gunzip /bootflash/.tmpbios.bin.gz"),
               "sleep(2)", "log(performing - /bin/gunzip /bootflash/.tmpbios.bin.gz)", "chdir(\"/\")", hand_over}));
    EXPECT_EQ(platform().read_file(temporary), "the image");
    EXPECT_EQ(std::filesystem::current_path(), "/");
}

TEST_F(ImageExtraction, TakesTheImageOutOfTheNamedSystemImage)
{
    unpacks("the image");
    EXPECT_EQ(extract("/bootflash/system-6.2_1.bin"), 0);
    const std::string take_plugin =
        "/vesk/sbin/veskadd -x /bootflash/system-6.2_1.bin . /vesk/plugin_img/core_plugin";
    const std::string take_image = "/vesk/sbin/veskadd -x vesk/plugin_img/core_plugin . /vesk/bin/bios-x86n.bin.gz";
    const std::string move = "/bin/mv ./vesk/bin/bios-x86n.bin.gz /bootflash/.tmpbios.bin.gz";
    EXPECT_EQ(story(), (lines{"system(\"rm -rf /var/tmp/core_plugin\")",
                              "log(source path is = /bootflash/system-6.2_1.bin, /vesk/bin/bios-x86n.bin.gz, "
                              "/bootflash/.tmpbios.bin)",
                              run("/bin/mkdir -p /bootflash"),
                              "log(executing /bin/mkdir -p /bootflash)",
                              "chdir(\"/bootflash\")",
                              "log(dest path=/bootflash/.tmpbios.bin)",
                              "log(current dir=/bootflash)",
                              run_quietly(take_plugin),
                              "sleep(3)",
                              "log(performing " + take_plugin + ")",
                              run_quietly(take_image),
                              "sleep(3)",
                              "log(performing " + take_image + ")",
                              run_quietly(move),
                              "log(performing " + move + ")",
                              removal,
                              "log( **REMOVE  **- /bootflash/.tmpbios.bin)",
                              run("/bin/gunzip /bootflash/.tmpbios.bin.gz"),
                              "sleep(3)",
                              "log(performing /bin/gunzip /bootflash/.tmpbios.bin.gz)",
                              "chdir(\"/\")",
                              hand_over}));
}

TEST_F(ImageExtraction, FailsWhenNothingWasProduced)
{
    for (const char *image : {static_cast<const char *>(nullptr), "/bootflash/system.bin"}) {
        EXPECT_EQ(extract(image), 0x40710003);
        EXPECT_EQ(platform().logs().back(), "ERROR: SUP BIOS source file (/bootflash/.tmpbios.bin) not found");
        EXPECT_EQ(std::filesystem::current_path(), "/");
    }
    EXPECT_EQ(platform().calls("sysmgr_cli_gsync_file"), lines{});
}

TEST_F(ImageExtraction, RemovesALeftOverImageBeforeItUnpacks)
{
    platform().write_file(temporary, "an older image");
    bool was_there = true;
    platform().when(gunzip, [&was_there] { was_there = platform().file_exists(temporary); });
    EXPECT_EQ(extract(nullptr), 0x40710003);
    EXPECT_FALSE(was_there);
    platform().write_file(temporary, "an older image");
    EXPECT_EQ(extract("/bootflash/system.bin"), 0x40710003);
    EXPECT_FALSE(was_there);
}

TEST_F(ImageExtraction, IgnoresWhatItsCommandsReturn)
{
    unpacks("the image");
    platform().every_result("system", {-1, ENOMEM});
    platform().every_result("exec_cmd_with_io_print", {256, 0});
    platform().every_result("exec_cmd_with_files_print", {256, 0});
    platform().every_result("sysmgr_cli_gsync_file", {-1, EIO});
    EXPECT_EQ(extract("/bootflash/system.bin"), 0);
}

TEST_F(ImageExtraction, WorksInTheFolderOfTheTemporaryFile)
{
    std::filesystem::create_directories(platform().path("/bootflash/a/b"));
    EXPECT_EQ(extract_bios_image(8, 11, nullptr, source, "/bootflash/a/b/image"), 0x40710003);
    EXPECT_TRUE(platform().logged("executing /bin/mkdir -p /bootflash/a/b"));
    EXPECT_TRUE(platform().logged("current dir=/bootflash/a/b"));
}

TEST_F(ImageExtraction, CutsCommandsAt255Characters)
{
    const std::string image = "/bootflash/" + std::string(270, 'x');
    EXPECT_EQ(extract(image.c_str()), 0x40710003);
    for (const std::string &call : platform().calls("exec_cmd_with_files_print")) {
        const std::size_t start = call.find('"') + 1;
        EXPECT_LE(call.find('"', start) - start, 255u) << call;
    }
}

// The work folder cannot be entered and the daemon stands in "/", where its own image tree is.
TEST_F(ImageExtraction, KeepsTheImageTreeWhenTheWorkFolderCannotBeEntered)
{
    platform().write_file(source, "the compressed image");
    std::filesystem::create_directories(platform().path("/vesk/plugin_img"));
    platform().write_file("/vesk/plugin_img/core_plugin", "the plugin");
    std::filesystem::current_path(platform().root());
    for (const char *image : {static_cast<const char *>(nullptr), "/bootflash/system.bin"}) {
        platform().next_result("chdir", {-1, EIO});
        EXPECT_EQ(extract(image), 0x40710003);
        EXPECT_EQ(platform().read_file(source), "the compressed image");
        EXPECT_EQ(platform().read_file("/vesk/plugin_img/core_plugin"), "the plugin");
        std::filesystem::current_path(platform().root());
    }
    std::filesystem::current_path("/");
}

TEST_F(ImageExtraction, DoesNotTakeWhatAKilledChildLeftBehind)
{
    std::filesystem::create_directories(platform().path("/bootflash/vesk/bin"));
    std::filesystem::create_directories(platform().path("/bootflash/vesk/plugin_img"));
    const lines leftovers{"/bootflash/vesk/bin/bios-x86n.bin.gz", "/bootflash/vesk/plugin_img/core_plugin",
                          "/bootflash/.tmpbios.bin.gz"};
    for (const std::string &leftover : leftovers)
        platform().write_file(leftover, "of another request");
    lines found;
    platform().when("exec_cmd_with_files_print", [&] {
        for (const std::string &leftover : leftovers)
            if (platform().file_exists(leftover))
                found.push_back(leftover);
    });
    EXPECT_EQ(extract("/bootflash/system.bin"), 0x40710003);
    EXPECT_EQ(found, lines{});
}

class HostileImagePath : public ImageExtraction, public testing::WithParamInterface<const char *>
{
};

TEST_P(HostileImagePath, NeverReachesACommand)
{
    platform().write_file(temporary, "an older image");
    EXPECT_EQ(extract(GetParam()), 0x40710003);
    EXPECT_EQ(all_commands().find("core_plugin . "), std::string::npos) << all_commands();
    EXPECT_EQ(all_commands().find("veskadd"), std::string::npos) << all_commands();
    EXPECT_EQ(platform().logs().back(), "ERROR: SUP BIOS source file (/bootflash/.tmpbios.bin) not found");
    EXPECT_FALSE(platform().file_exists(temporary)) << "an older image would be programmed";
    EXPECT_EQ(platform().calls("sysmgr_cli_gsync_file"), lines{});
}

INSTANTIATE_TEST_SUITE_P(ShellCharacters, HostileImagePath,
                         testing::Values("/bootflash/a;reboot", "/bootflash/a b", "/bootflash/$(reboot)",
                                         "/bootflash/`reboot`", "/bootflash/a|b", "/bootflash/a&b", "/a>b", "/a<b",
                                         "/a*", "/a?", "/[a]", "/{a,b}", "~/a", "/a'b", "/a\"b", "/a\\b", "/a\nb",
                                         "/a\tb", "/a!b", "/a#b", "/a^b", "/a(b)", "/a\x01", "/a\x7f", "/a\xc3\xa4",
                                         "-rf", "--help", "-", ""));

class HarmlessImagePath : public ImageExtraction, public testing::WithParamInterface<const char *>
{
};

TEST_P(HarmlessImagePath, ReachesTheCommandAsItIs)
{
    unpacks("the image");
    EXPECT_EQ(extract(GetParam()), 0);
    EXPECT_THAT(platform().calls("exec_cmd_with_files_print").at(0),
                testing::StartsWith("exec_cmd_with_files_print(\"/vesk/sbin/veskadd -x " + std::string(GetParam()) +
                                    " . /vesk/plugin_img/core_plugin\""));
}

INSTANTIATE_TEST_SUITE_P(OrdinaryCharacters, HarmlessImagePath,
                         testing::Values("/bootflash/system.6.2.8a.bin", "/bootflash/a_b-c+d:e@f,g=h%i", "relative",
                                         "/A/Z/a/z/0/9", "/bootflash/../bootflash/x"));

TEST_F(ImageExtraction, CleansUpHereAndOnTheStandby)
{
    platform().write_file(temporary, "the image");
    EXPECT_EQ(clean_up(), 0);
    EXPECT_EQ(story(),
              (lines{removal, "log(REMOVE - /bootflash/.tmpbios.bin)", run_quietly("/bin/rm -rf /bootflash/vesk"),
                     "log(REMOVE - /bin/rm -rf /bootflash/vesk)", run_quietly("/bin/touch /bootflash/.tmpbios.bin"),
                     "log(cleanup - /bin/touch /bootflash/.tmpbios.bin)", hand_over, removal,
                     "log(REMOVE - /bootflash/.tmpbios.bin)"}));
    EXPECT_FALSE(platform().file_exists(temporary));
}

TEST_F(ImageExtraction, CleansUpWhatIsAlreadyGone)
{
    EXPECT_EQ(clean_up(), 0);
    EXPECT_EQ(platform().calls("sysmgr_cli_gsync_file").size(), 1u);
    EXPECT_EQ(platform().calls("unlink").size(), 2u);
}

TEST_F(ImageExtraction, RemovesTheEmptyFileAfterItWasHandedOver)
{
    platform().when("exec_cmd_with_files_print(\"/bin/touch", [] { platform().write_file(temporary, ""); });
    std::string handed_over = "nothing";
    platform().when("sysmgr_cli_gsync_file",
                    [&handed_over] { handed_over = platform().read_file(temporary).value_or("nothing"); });
    EXPECT_EQ(clean_up(), 0);
    EXPECT_EQ(handed_over, "");
    EXPECT_FALSE(platform().file_exists(temporary));
}

TEST_F(ImageExtraction, NeverFailsToCleanUp)
{
    platform().every_result("unlink", {-1, EROFS});
    platform().every_result("exec_cmd_with_files_print", {-1, ENOMEM});
    platform().every_result("sysmgr_cli_gsync_file", {-1, EIO});
    EXPECT_EQ(clean_up(), 0);
}

TEST_F(ImageExtraction, CleansUpWithoutUsingTheImagePath)
{
    EXPECT_EQ(cleanup_temp_files(8, 11, "/bootflash/a;reboot", source, temporary), 0);
    EXPECT_EQ(all_commands().find("reboot"), std::string::npos);
}

} // namespace
