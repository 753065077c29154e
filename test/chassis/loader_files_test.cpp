// Requests for the installed boot loader and for /etc/srg-ks.sro, and the partition that the first one mounts.
#include <cerrno>
#include <filesystem>
#include <unistd.h>

#include "bios_opcodes.h"
#include "bios_results.h"
#include "loader_chassis.h"

namespace
{

namespace files = std::filesystem;

constexpr std::uint32_t LARGEST_FILE_BYTES = 64u << 20;

// Both requests, in both isolations.
class LoaderFiles : public loader_chassis
{
protected:
    struct served_file {
        std::uint32_t opcode;
        const char *path;
    };
    static constexpr served_file SERVED[] = {
        {.opcode = MTS_OPC_BIOS_GET_LOADER_IMAGE, .path = INSTALLED},
        {.opcode = MTS_OPC_BIOS_GET_KS_IMAGE, .path = "/etc/srg-ks.sro"},
    };

    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root";
        up_with_loader();
    }
    void expect_bytes(std::uint32_t opcode, const std::string &wanted)
    {
        const auto length = static_cast<std::uint32_t>(wanted.size());
        const file_answer answer = ask_for_file(opcode, length);
        EXPECT_EQ(answer.status, BIOS_OK) << opcode;
        EXPECT_EQ(answer.length, length) << opcode;
        EXPECT_EQ(answer.bytes == wanted, true) << opcode;
    }
    void expect_failure(std::uint32_t opcode, std::uint32_t length, std::uint32_t status)
    {
        const file_answer answer = ask_for_file(opcode, length);
        EXPECT_EQ(answer.status, status) << opcode << ", " << length << " bytes";
        EXPECT_EQ(answer.length, 0U);
        EXPECT_EQ(answer.bytes.size(), 0U);
    }
};
INSTANTIATE_TEST_SUITE_P(In, LoaderFiles, testing::ValuesIn(ISOLATIONS), name_of_isolation);

class LoaderPartitionWithMounts : public LoaderFiles
{
};
INSTANTIATE_TEST_SUITE_P(In, LoaderPartitionWithMounts, testing::Values("auto"), name_of_isolation);

class LoaderPartitionWithoutMounts : public LoaderFiles
{
};
INSTANTIATE_TEST_SUITE_P(In, LoaderPartitionWithoutMounts, testing::Values("plain"), name_of_isolation);

} // namespace

TEST_P(LoaderFiles, AreHandedOutWholeAndInPart)
{
    const std::string &bytes = first_loader().bytes;
    for (const served_file &file : SERVED) {
        expect_bytes(file.opcode, bytes);
        expect_bytes(file.opcode, bytes.substr(0, 1000));
        expect_bytes(file.opcode, bytes.substr(0, 1));
        expect_bytes(file.opcode, "");
        expect_nothing_left();
    }
    expect_serves();
}

TEST_P(LoaderFiles, AreNotHandedOutBeyondTheirEnd)
{
    const auto bytes = static_cast<std::uint32_t>(first_loader().bytes.size());
    for (const served_file &file : SERVED) {
        expect_failure(file.opcode, bytes + 1, EIO);
        expect_failure(file.opcode, 10 * bytes, EIO);
        expect_nothing_left();
        expect_bytes(file.opcode, first_loader().bytes);
    }
}

TEST_P(LoaderFiles, AreAskedForWhenTheyAreMissing)
{
    for (const served_file &file : SERVED) {
        files::rename(card_file(1, file.path), card_file(1, "/bootflash/away"));
        for (const std::uint32_t length : {0U, 1U, 1000U})
            expect_failure(file.opcode, length, ENOENT);
        expect_nothing_left();
        files::rename(card_file(1, "/bootflash/away"), card_file(1, file.path));
        expect_bytes(file.opcode, first_loader().bytes);
    }
}

TEST_P(LoaderFiles, OfTheLargestSizeAreHandedOutWhole)
{
    std::string bytes = first_loader().bytes;
    bytes.resize(LARGEST_FILE_BYTES);
    bytes.back() = 'z';
    for (const served_file &file : SERVED) {
        write_file(card_file(1, file.path), bytes);
        expect_bytes(file.opcode, bytes);
    }
    expect_nothing_left();
    expect_serves();
}

TEST_P(LoaderFiles, OfTheLargestSizeAreInstalledFirst)
{
    const test_loader large = make_loader("64.0", LARGEST_FILE_BYTES >> 10);
    ASSERT_EQ(large.bytes.size(), LARGEST_FILE_BYTES);
    EXPECT_EQ(install(make_system_image("system.bin", large.path)), BIOS_OK);
    expect_installed(large);
    expect_bytes(MTS_OPC_BIOS_GET_LOADER_IMAGE, large.bytes);
}

TEST_P(LoaderFiles, OfALengthThatNoMemoryHoldsAreRefused)
{
    for (const served_file &file : SERVED) {
        for (std::uint32_t length = 0xfffffff7; length != 0; ++length)
            expect_failure(file.opcode, length, BIOS_LOADER_FILE_NO_MEMORY);
        expect_failure(file.opcode, 0x80000000, BIOS_LOADER_FILE_NO_MEMORY);
        expect_bytes(file.opcode, first_loader().bytes);
    }
    expect_serves();
}

TEST_P(LoaderFiles, NeedThePartitionForTheLoaderOnly)
{
    take_mount_away();
    for (const std::uint32_t length : {0U, 100U})
        expect_failure(MTS_OPC_BIOS_GET_LOADER_IMAGE, length, BIOS_LOADER_ERR_MOUNT);
    expect_failure(MTS_OPC_BIOS_GET_LOADER_IMAGE, 0xfffffff8, BIOS_LOADER_FILE_NO_MEMORY);
    expect_bytes(MTS_OPC_BIOS_GET_KS_IMAGE, first_loader().bytes);
    expect_serves();
}

TEST_P(LoaderFiles, AreServedAgainAndAgain)
{
    for (unsigned i = 0; i < 10; ++i)
        expect_bytes(MTS_OPC_BIOS_GET_LOADER_IMAGE, first_loader().bytes);
    expect_nothing_left();
    expect_serves();
}

TEST_P(LoaderFiles, PartitionIsMountedAndUnmountedByTheCardsOwnPrograms)
{
    const std::vector<std::string> mount = {"/bin/mount", "-o", "ro", "/mnt/bootloader"};
    const std::vector<std::string> unmount = {"/bin/umount", "/mnt/bootloader"};
    const std::string loader = card_file(1, INSTALLED);
    for (unsigned i = 0; i < 3; ++i) {
        EXPECT_EQ(in_card(unmount).exit_code, 32) << "is not mounted";
        EXPECT_EQ(in_card({"ls", "/mnt/bootloader"}).output, "");
        EXPECT_EQ(in_card(mount).exit_code, 0);
        EXPECT_EQ(in_card({"ls", "/mnt/bootloader"}).output, "srg-sloader.sro\n");
        EXPECT_EQ(in_card(unmount).exit_code, 0);
    }
    EXPECT_EQ(in_card({"/bin/mount", "-o", "ro", "/mnt/other"}).exit_code, 1);
    EXPECT_EQ(in_card({"/bin/umount", "/mnt/other"}).exit_code, 32);
    files::rename(card_file(1, "/var/lib/bootloader"), card_file(1, "/var/lib/away"));
    EXPECT_EQ(in_card(mount).exit_code, 32);
    files::rename(card_file(1, "/var/lib/away"), card_file(1, "/var/lib/bootloader"));
    expect_nothing_left();
}

TEST_P(LoaderPartitionWithMounts, IsReadOnlyWhenItIsMountedSo)
{
    if (!has_own_mounts())
        GTEST_SKIP() << "needs mounts in the card";
    ASSERT_EQ(in_card({"/bin/mount", "-o", "ro", "/mnt/bootloader"}).exit_code, 0);
    const finished_program touched = in_card({"touch", "/mnt/bootloader/file"});
    EXPECT_NE(touched.exit_code, 0);
    EXPECT_NE(touched.errors.find("Read-only"), std::string::npos) << touched.errors;
    ASSERT_EQ(in_card({"/bin/umount", "/mnt/bootloader"}).exit_code, 0);
}

// Without mounts the programs have only a link to tell them what is mounted.
TEST_P(LoaderPartitionWithoutMounts, IsNotMountedTwice)
{
    const std::vector<std::string> mount = {"/bin/mount", "-o", "ro", "/mnt/bootloader"};
    ASSERT_EQ(in_card(mount).exit_code, 0);
    const finished_program twice = in_card(mount);
    EXPECT_EQ(twice.exit_code, 32);
    EXPECT_NE(twice.errors.find("is mounted already"), std::string::npos) << twice.errors;
    EXPECT_EQ(in_card({"ls", "/mnt/bootloader"}).output, "srg-sloader.sro\n");
    ASSERT_EQ(in_card({"/bin/umount", "/mnt/bootloader"}).exit_code, 0);
    write_file(card_file(1, "/mnt/bootloader/file"), "in the way");
    EXPECT_EQ(in_card(mount).exit_code, 32);
    files::remove(card_file(1, "/mnt/bootloader/file"));
}
