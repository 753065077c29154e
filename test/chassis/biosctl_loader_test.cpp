// biosctl has a boot loader installed and fetches the files of the installed one, by a real daemon and its tools.
#include <filesystem>

#include <nlohmann/json.hpp>
#include <unistd.h>

#include "chassis_fixture.h"

namespace
{

constexpr int DONE = 0;
constexpr int FAILED = 1;
constexpr int NOTHING_TO_DO = 2;
constexpr int NOT_FOUND = 3;

constexpr const char *INSTALLED = "/var/lib/bootloader/srg-sloader.sro"; // where a card has its partition

class BiosctlLoader : public chassis_test
{
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root";
        first_ = make_loader("1.7.3", "300K");
        insert({.slot = 1, .boot_loader = first_, .ks_image = first_});
        up();
    }
    std::string make_loader(const std::string &version, const std::string &size)
    {
        const std::string path = workspace() + "/loader-" + version;
        expect_made({BIOS_IMAGE_PROGRAM, "loader", "--output", path, "--version", version, "--size", size});
        return path;
    }
    // On the boot flash of slot 1, under this name.
    void make_system_image(const std::string &name, const std::string &loader)
    {
        expect_made({BIOS_IMAGE_PROGRAM, "system", "--output", on_bootflash(1, name), "--loader", loader});
    }
    std::string out_file() const { return workspace() + "/fetched.sro"; }
    const std::string &first() const { return first_; }

private:
    static void expect_made(const std::vector<std::string> &words)
    {
        const finished_program finished = run_program(words);
        ASSERT_EQ(finished.exit_code, 0) << finished.errors;
    }

    std::string first_;
};

bool says(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

TEST_F(BiosctlLoader, InstallsTheLoaderOfASystemImageOnce)
{
    const std::string next = make_loader("1.8.0", "512K");
    make_system_image("system.bin", next);
    const finished_program installed = biosctl({"loader", "install", "bootflash:system.bin"});
    EXPECT_EQ(installed.exit_code, DONE) << installed.errors;
    EXPECT_EQ(file_content(card_file(1, INSTALLED)) == file_content(next), true);
    EXPECT_TRUE(card_has(1, "/bootflash/system.bin"));

    const finished_program again = biosctl({"loader", "install", "bootflash:system.bin", "--remove"});
    EXPECT_EQ(again.exit_code, NOTHING_TO_DO);
    EXPECT_TRUE(says(again.errors, "0x40530002 (loader_same_version)")) << again.errors;
    EXPECT_FALSE(card_has(1, "/bootflash/system.bin"));

    const finished_program gone = biosctl({"--json", "loader", "install", "bootflash:system.bin"});
    EXPECT_EQ(gone.exit_code, FAILED);
    EXPECT_EQ(nlohmann::json::parse(gone.output)["result"], "0x40530004") << gone.output;
    EXPECT_EQ(file_content(card_file(1, INSTALLED)) == file_content(next), true);
}

TEST_F(BiosctlLoader, FetchesTheInstalledLoaderWhole)
{
    const finished_program fetched = biosctl({"loader", "get", "--output", out_file()});
    EXPECT_EQ(fetched.exit_code, DONE) << fetched.errors;
    EXPECT_EQ(file_content(out_file()) == file_content(first()), true);
    EXPECT_TRUE(says(fetched.output, "version: 1.7.3")) << fetched.output;
    EXPECT_TRUE(says(fetched.output, "307200 bytes are there")) << fetched.output;
    EXPECT_LE(lines_with(1, "opc=4701"), 28U);

    EXPECT_EQ(biosctl({"loader", "get", "--output", out_file()}).exit_code, FAILED) << "it would be overwritten";
    std::filesystem::remove(card_file(1, INSTALLED));
    const finished_program missing = biosctl({"loader", "get", "--output", out_file(), "--force"});
    EXPECT_EQ(missing.exit_code, NOT_FOUND) << missing.errors;
    EXPECT_EQ(file_content(out_file()) == file_content(first()), true) << "the file was touched";
}

TEST_F(BiosctlLoader, FetchesTheKsFileOrItsBeginning)
{
    EXPECT_EQ(biosctl({"loader", "ks", "--output", out_file()}).exit_code, DONE);
    EXPECT_EQ(file_content(out_file()) == file_content(first()), true);
    EXPECT_EQ(biosctl({"loader", "ks", "--output", out_file(), "--size", "1000", "--force"}).exit_code, DONE);
    EXPECT_EQ(file_content(out_file()) == file_content(first()).substr(0, 1000), true);
    const finished_program longer =
        biosctl({"loader", "ks", "--output", out_file(), "--size", "307201", "--force"});
    EXPECT_EQ(longer.exit_code, FAILED);
    EXPECT_TRUE(says(longer.errors, "fewer than 307201 bytes")) << longer.errors;
}

TEST_F(BiosctlLoader, TellsThatThePartitionCannotBeMounted)
{
    write_file(card_file(1, "/etc/fstab"), "");
    const finished_program finished = biosctl({"loader", "get", "--output", out_file()});
    EXPECT_EQ(finished.exit_code, FAILED);
    EXPECT_TRUE(says(finished.errors, "0x40530006 (loader_partition_not_mounted)")) << finished.errors;
    EXPECT_FALSE(std::filesystem::exists(out_file()));
}
