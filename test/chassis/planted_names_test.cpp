// What another user of a card has left in its world-writable folders, under the names that the daemon and its tools
// use there: nothing outside is written or removed, nobody waits, and the work is done or clearly fails.
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "bios_opcodes.h"
#include "chassis_fixture.h"
#include "version_messages.h"

namespace
{

namespace files = std::filesystem;

constexpr uid_t OTHER_USER = 65534;
constexpr const char *INSTALL_LOG = "/tmp/install_loader.log";
constexpr const char *OPENED_IMAGES = "/tmp/nbitool";
constexpr const char *UNPACKED_PLUGIN = "/var/tmp/core_plugin";
constexpr const char *NAMES[] = {INSTALL_LOG, OPENED_IMAGES, UNPACKED_PLUGIN, "/tmp/new_bios", "/tmp/chksum"};
constexpr const char *PRECIOUS = "precious: not to be changed by anybody";

enum class plant {
    link_to_a_file,
    link_to_nothing,
    link_to_a_folder,
    second_name,
    fifo,
    fifo_with_a_reader,
    file,
    empty_folder,
    full_folder,
};

struct planted_case {
    const char *name;
    plant what;
    bool log_is_usable; // what is in the way can be put away
};

constexpr planted_case CASES[] = {
    {"LinkToAFile", plant::link_to_a_file, true},
    {"LinkToNothing", plant::link_to_nothing, true},
    {"LinkToAFolder", plant::link_to_a_folder, true},
    {"SecondName", plant::second_name, true},
    {"Fifo", plant::fifo, true},
    {"FifoWithAReader", plant::fifo_with_a_reader, true},
    {"File", plant::file, true},
    {"EmptyFolder", plant::empty_folder, true},
    {"FullFolder", plant::full_folder, false},
};

void PrintTo(const planted_case &row, std::ostream *out)
{
    *out << row.name;
}

class PlantedNames : public chassis_test, public testing::WithParamInterface<planted_case>
{
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root to plant something of another user";
        loader_ = make_loader("1.8.0");
        insert({.slot = 1, .boot_loader = make_loader("1.7.3")});
        up();
        daemon_ = daemon_pid(1);
        outside_ = card_file(1, "/root/outside");
        ASSERT_TRUE(files::create_directory(outside_));
        write_file(outside_ + "/file", PRECIOUS);
    }
    std::string make_loader(const std::string &version) const
    {
        const std::string path = workspace() + "/loader-" + version;
        EXPECT_EQ(run_program({BIOS_IMAGE_PROGRAM, "loader", "--output", path, "--version", version}).exit_code, 0);
        return path;
    }
    void plant_at(const std::string &name)
    {
        const std::string path = card_file(1, name);
        files::remove_all(path);
        make(GetParam().what, path);
        // A second name has the owner of the first.
        if (GetParam().what != plant::second_name) {
            ASSERT_EQ(::lchown(path.c_str(), OTHER_USER, OTHER_USER), 0);
        }
    }
    void make(plant what, const std::string &path)
    {
        switch (what) {
        case plant::link_to_a_file:
            return files::create_symlink("/root/outside/file", path);
        case plant::link_to_nothing:
            return files::create_symlink("/root/outside/new", path);
        case plant::link_to_a_folder:
            return files::create_directory_symlink("/root/outside", path);
        case plant::second_name:
            return files::create_hard_link(outside_ + "/file", path);
        case plant::fifo:
        case plant::fifo_with_a_reader:
            ASSERT_EQ(::mkfifo(path.c_str(), 0666), 0);
            if (what == plant::fifo_with_a_reader)
                readers_.emplace_back(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
            return;
        case plant::file:
            write_file(path, "of another user");
            return files::permissions(path, files::perms(0666));
        case plant::full_folder:
            ASSERT_TRUE(files::create_directory(path));
            return write_file(path + "/file", "of another user");
        case plant::empty_folder:
            ASSERT_TRUE(files::create_directory(path));
        }
    }
    finished_program install(const std::string &image)
    {
        return biosctl({"loader", "install", "bootflash:" + image});
    }
    // The readers of planted FIFOs have gone: whoever would still write to one is ended by a signal.
    void expect_serves()
    {
        readers_.clear();
        EXPECT_EQ(biosctl({"lock", "1"}).exit_code, 0);
        EXPECT_EQ(biosctl({"unlock", "1"}).exit_code, 0);
        EXPECT_EQ(daemon_pid(1), daemon_) << "the daemon is another one";
    }
    // The version of the image has to be read from the image, which is unpacked for it.
    void expect_tells_versions()
    {
        requester asking;
        EXPECT_EQ(
            asking.ask(1, MTS_OPC_BIOS_GET_SRC_BIOS_VERSION, source_version_request(true, "", NO_NOTICES)).payload,
            source_version_answer(new_image().version));
    }
    void expect_nothing_outside_touched() const
    {
        EXPECT_EQ(file_content(outside_ + "/file"), PRECIOUS);
        EXPECT_EQ(std::distance(files::directory_iterator(outside_), {}), 1) << "something was written outside";
        EXPECT_TRUE(files::is_directory(outside_));
    }
    void expect_installed() const
    {
        EXPECT_EQ(file_content(card_file(1, "/var/lib/bootloader/srg-sloader.sro")) == file_content(loader_), true);
    }

    std::string loader_;

private:
    pid_t daemon_ = 0;
    std::string outside_;
    std::vector<unique_fd> readers_;
};

INSTANTIATE_TEST_SUITE_P(Of, PlantedNames, testing::ValuesIn(CASES),
                         [](const testing::TestParamInfo<planted_case> &row) {
                             return std::string(row.param.name);
                         });

} // namespace

TEST_P(PlantedNames, DoNoHarmToTheUnpackingOfAnImage)
{
    for (const char *name : NAMES)
        plant_at(name);
    expect_tells_versions();
    expect_tidy(1); // nothing is left of what was planted in /var/tmp
    expect_nothing_outside_touched();
    expect_serves();
}

TEST_P(PlantedNames, DoNoHarmToAnInstallation)
{
    ASSERT_EQ(
        run_program({BIOS_IMAGE_PROGRAM, "system", "--output", on_bootflash(1, "system.bin"), "--loader", loader_})
            .exit_code,
        0);
    for (const char *name : NAMES)
        plant_at(name);
    // The folder of the opened images is not used as long as it is another user's.
    const finished_program refused = install("system.bin");
    EXPECT_EQ(refused.exit_code, 1) << refused.errors;
    EXPECT_NE(refused.errors.find("0x40530004"), std::string::npos) << refused.errors;
    expect_nothing_outside_touched();
    expect_serves();

    files::remove_all(card_file(1, OPENED_IMAGES));
    plant_at(INSTALL_LOG);
    const finished_program installed = install("system.bin");
    EXPECT_EQ(installed.exit_code, 0) << installed.errors;
    expect_installed();
    expect_nothing_outside_touched();
    expect_serves();
    struct stat log = {};
    ASSERT_EQ(::lstat(card_file(1, INSTALL_LOG).c_str(), &log), 0);
    EXPECT_EQ(S_ISREG(log.st_mode) && log.st_uid == 0, GetParam().log_is_usable);
    expect_tells_versions();
}
