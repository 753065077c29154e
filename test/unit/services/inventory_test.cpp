// The services that a card answers from the inventory and from the files of its slot.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "cctrl.h"
#include "chassis_dir.h"
#include "in_child.h"
#include "pfm.h"
#include "rest_of.h"
#include "sprom.h"
#include "sysmgr.h"
#include "temporary_folder.h"

namespace
{

namespace fs = std::filesystem;

constexpr unsigned OWN_SLOT = 5;
constexpr const char *TEMPORARY_IMAGE = "/bootflash/.tmpbios.bin";

class Inventory : public testing::Test
{
protected:
    Inventory()
    {
        fs::create_directories(folder_.path("chassis/inventory/5"));
        fs::create_directories(folder_.path("chassis/slots/5"));
        own_slot(OWN_SLOT);
    }

    void own_slot(unsigned slot) { ASSERT_EQ(0, chassis_attach(folder_.path("chassis"), slot)); }
    fs::path below(const std::string &path) const { return folder_.path("chassis/" + path); }

    void put(const std::string &path, const std::string &content) const
    {
        fs::create_directories(below(path).parent_path());
        std::ofstream(below(path), std::ios::binary | std::ios::trunc) << content;
    }
    std::string content_of(const fs::path &path) const
    {
        std::ifstream file(path, std::ios::binary);
        EXPECT_TRUE(file) << path;
        return rest_of(file);
    }

    void insert_standby() const
    {
        put("inventory/6/kind", "4\n");
        put("inventory/6/sup_state", "2\n");
        fs::create_directories(below("slots/6/root/bootflash"));
    }
    std::string make_source(const std::string &content) const
    {
        const fs::path path = folder_.path("source");
        std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
        return path.string();
    }
    static int32_t sync(const std::string &source, const std::string &destination)
    {
        errno = 0;
        return sysmgr_cli_gsync_file(0, 129, source.c_str(), destination.c_str(), 1);
    }
    fs::path standby_bootflash() const { return below("slots/6/root/bootflash"); }
    static std::size_t files_in(const fs::path &folder)
    {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder), {}));
    }

    temporary_folder folder_{"chassis_inventory_test"};
};

// Lets the kernel refuse openat2 in this process, for the rest of its life.
void forbid_openat2(int error)
{
    constexpr unsigned OPENAT2_NUMBER = 437; // on every machine
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, OPENAT2_NUMBER, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog filter{static_cast<unsigned short>(std::size(program)), program};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
        ::_exit(99);
}

// Platform manager

TEST_F(Inventory, PlatformInfoNamesTheOwnSlot)
{
    platform_info_t info;
    std::memset(&info, 0xff, sizeof info);
    ASSERT_EQ(0, get_platform_info(&info));
    EXPECT_EQ(5, info.module_num);
    EXPECT_EQ(0, info.reserved[254]);
}

TEST_F(Inventory, PlatformInfoFailsOutsideOfACard)
{
    own_slot(0);
    platform_info_t info{};
    EXPECT_NE(0, get_platform_info(&info));
    EXPECT_EQ(ENODEV, errno);
}

TEST_F(Inventory, ModuleTableHoldsEverySlotAndZeroForEmptyOnes)
{
    put("inventory/1/kind", "1\n");
    put("inventory/1/card_id", "283\n");
    put("inventory/232/kind", "2\n");
    put("inventory/232/card_id", "0x14\n");
    std::vector<pfm_module_record_t> records(PFM_MODULE_COUNT);
    std::memset(records.data(), 0xff, records.size() * sizeof records[0]);
    ASSERT_GE(pfm_get_all_modules_in_chassis(0, records.data(), PFM_MODULE_COUNT), 0);
    EXPECT_EQ(1, records[0].kind);
    EXPECT_EQ(283, records[0].card_id);
    EXPECT_EQ(2, records[231].kind);
    EXPECT_EQ(20, records[231].card_id);
    const pfm_module_record_t empty{};
    EXPECT_EQ(0, std::memcmp(&empty, &records[1], sizeof empty));
}

TEST_F(Inventory, ModuleTableCountsGarbageAsZero)
{
    put("inventory/1/kind", "257\n"); // does not fit the record: not 1
    put("inventory/1/card_id", "65719\n");
    put("inventory/2/kind", std::string("\x00\xff\n1", 4));
    put("inventory/2/card_id", "183x\n");
    put("inventory/3/card_id", "");
    fs::create_directories(below("inventory/4/card_id"));
    std::vector<pfm_module_record_t> records(PFM_MODULE_COUNT);
    ASSERT_GE(pfm_get_all_modules_in_chassis(0, records.data(), PFM_MODULE_COUNT), 0);
    for (unsigned index = 0; index < 4; ++index) {
        EXPECT_EQ(0, records[index].kind) << index;
        EXPECT_EQ(0, records[index].card_id) << index;
    }
}

TEST_F(Inventory, ModuleTableStaysAsItWasWithoutAnInventory)
{
    fs::remove_all(below("inventory"));
    std::vector<pfm_module_record_t> records(PFM_MODULE_COUNT);
    records[7].card_id = 77;
    EXPECT_LT(pfm_get_all_modules_in_chassis(0, records.data(), PFM_MODULE_COUNT), 0);
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(77, records[7].card_id);
}

TEST_F(Inventory, ModuleInfoIsReadAtEachCall)
{
    card_module_info_t info{};
    put("inventory/5/card_id", "183\n");
    ASSERT_EQ(0, get_card_module_info(&info));
    EXPECT_EQ(183, info.card_id);
    put("inventory/5/card_id", "182\n");
    ASSERT_EQ(0, get_card_module_info(&info));
    EXPECT_EQ(182, info.card_id);
}

TEST_F(Inventory, ModuleInfoFailsWithoutACardId)
{
    card_module_info_t info{};
    EXPECT_NE(0, get_card_module_info(&info));
    EXPECT_EQ(ENODEV, errno);
    own_slot(0);
    errno = 0;
    EXPECT_NE(0, get_card_module_info(&info));
    EXPECT_EQ(ENODEV, errno);
}

TEST_F(Inventory, ModuleInfoFailsOnDemand)
{
    put("inventory/5/card_id", "183\n");
    put("inventory/5/module_info_error", "110\n");
    card_module_info_t info{};
    EXPECT_NE(0, get_card_module_info(&info));
    EXPECT_EQ(110, errno);
    EXPECT_EQ(0, info.card_id);
    fs::remove(below("inventory/5/module_info_error"));
    EXPECT_EQ(0, get_card_module_info(&info));
}

TEST_F(Inventory, CardIdThatWasReadIsKnownWithoutDescriptors)
{
    put("inventory/5/card_id", "183\n");
    card_module_info_t info{};
    ASSERT_EQ(0, get_card_module_info(&info));
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
    info = {};
    const std::int32_t result = get_card_module_info(&info);
    (void)::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(0, result) << errno;
    EXPECT_EQ(183, info.card_id);

    own_slot(6);
    put("inventory/6/card_id", "90\n");
    put("inventory/6/module_info_error", std::to_string(EMFILE) + "\n");
    EXPECT_NE(0, get_card_module_info(&info)) << "the id of another slot";
}

// System manager

TEST_F(Inventory, SupervisorStateFollowsASwitchover)
{
    EXPECT_NE(SYSMGR_SUP_STATE_ACTIVE, sysmgr_cli_supstate_get(0));
    put("inventory/5/sup_state", "1\n");
    EXPECT_EQ(SYSMGR_SUP_STATE_ACTIVE, sysmgr_cli_supstate_get(0));
    put("inventory/5/sup_state", "2\n");
    EXPECT_EQ(SYSMGR_SUP_STATE_STANDBY, sysmgr_cli_supstate_get(0));
    put("inventory/5/sup_state", "one\n");
    EXPECT_NE(SYSMGR_SUP_STATE_ACTIVE, sysmgr_cli_supstate_get(0));
}

TEST_F(Inventory, UpgradeRestartIsTheOwnSlotsValue)
{
    put("inventory/6/upgrade_restart", "1\n");
    EXPECT_EQ(0, sysmgr_is_upgrade_restart());
    put("inventory/5/upgrade_restart", "1\n");
    EXPECT_NE(0, sysmgr_is_upgrade_restart());
    put("inventory/5/upgrade_restart", "0\n");
    EXPECT_EQ(0, sysmgr_is_upgrade_restart());
}

TEST_F(Inventory, ADaemonThatWasStartedAgainHasNotSeenABoot)
{
    put("slots/6/software_restart", "1\n");
    EXPECT_EQ(0, sysmgr_is_upgrade_restart());
    put("slots/5/software_restart", "1\n");
    EXPECT_NE(0, sysmgr_is_upgrade_restart());
    put("slots/5/software_restart", "0\n");
    EXPECT_EQ(0, sysmgr_is_upgrade_restart());
}

TEST_F(Inventory, SyncCopiesTheWholeFileWithItsPermissions)
{
    insert_standby();
    std::string image;
    for (unsigned byte = 0; byte < 300001; ++byte)
        image += static_cast<char>(byte * 7 >> 3);
    const std::string source = make_source(image);
    ASSERT_EQ(0, ::chmod(source.c_str(), 0640));
    ASSERT_EQ(0, sync(source, TEMPORARY_IMAGE)) << std::strerror(errno);
    EXPECT_EQ(image, content_of(standby_bootflash() / ".tmpbios.bin"));
    EXPECT_EQ(fs::perms(0640), fs::status(standby_bootflash() / ".tmpbios.bin").permissions());
    EXPECT_EQ(1U, files_in(standby_bootflash()));
}

TEST_F(Inventory, SyncOfAnEmptyFileReplacesTheCopy)
{
    insert_standby();
    ASSERT_EQ(0, sync(make_source("image"), TEMPORARY_IMAGE));
    ASSERT_EQ(0, sync(make_source(""), TEMPORARY_IMAGE));
    EXPECT_EQ("", content_of(standby_bootflash() / ".tmpbios.bin"));
    EXPECT_EQ(1U, files_in(standby_bootflash()));
}

TEST_F(Inventory, SyncSucceedsWithoutAStandby)
{
    EXPECT_EQ(0, sync("/does/not/exist", TEMPORARY_IMAGE));
    insert_standby();
    put("inventory/6/sup_state", "1\n"); // a supervisor, but not on standby
    EXPECT_EQ(0, sync("/does/not/exist", TEMPORARY_IMAGE));
    put("inventory/6/sup_state", "2\n");
    put("inventory/6/kind", "2\n"); // on standby, but no supervisor
    EXPECT_EQ(0, sync("/does/not/exist", TEMPORARY_IMAGE));
}

TEST_F(Inventory, SyncIsNeverToTheOwnSlot)
{
    put("inventory/5/kind", "1\n");
    put("inventory/5/sup_state", "2\n");
    fs::create_directories(below("slots/5/root/bootflash"));
    EXPECT_EQ(0, sync(make_source("image"), TEMPORARY_IMAGE));
    EXPECT_EQ(0U, files_in(below("slots/5/root/bootflash")));
}

TEST_F(Inventory, SyncFailsWhenTheSourceCannotBeRead)
{
    insert_standby();
    EXPECT_EQ(-1, sync("/does/not/exist", TEMPORARY_IMAGE));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, sync("/tmp", TEMPORARY_IMAGE));
    EXPECT_EQ(EISDIR, errno);
    const std::string fifo = folder_.path("fifo");
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    EXPECT_EQ(-1, sync(fifo, TEMPORARY_IMAGE));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, sync("relative", TEMPORARY_IMAGE));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0U, files_in(standby_bootflash()));
}

TEST_F(Inventory, SyncNeedsTheFolderOfTheDestination)
{
    insert_standby();
    const std::string source = make_source("image");
    EXPECT_EQ(-1, sync(source, "/nowhere/image"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(fs::exists(below("slots/6/root/nowhere")));
    fs::remove_all(below("slots/6/root"));
    EXPECT_EQ(-1, sync(source, TEMPORARY_IMAGE));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(Inventory, SyncRefusesDestinationsThatNameNoFileOfTheCard)
{
    insert_standby();
    const std::string source = make_source("image");
    for (const char *destination : {"", "/", "image", "/bootflash/", "/bootflash/.", "/bootflash/..",
                                    "/bootflash/../../../outside", "/../outside"}) {
        EXPECT_EQ(-1, sync(source, destination)) << destination;
        EXPECT_EQ(EINVAL, errno) << destination;
    }
}

TEST_F(Inventory, SyncLeavesADestinationFolderAloneAndNoTemporaryFile)
{
    insert_standby();
    fs::create_directories(standby_bootflash() / "folder");
    EXPECT_EQ(-1, sync(make_source("image"), "/bootflash/folder"));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_EQ(1U, files_in(standby_bootflash()));
}

TEST_F(Inventory, SyncDoesNotFollowALinkOutOfTheRoot)
{
    insert_standby();
    const fs::path outside = folder_.path("outside");
    fs::create_directories(outside);
    fs::remove(standby_bootflash());
    const std::string source = make_source("image");
    for (const fs::path &link : {outside, fs::path("../../../../outside"), fs::path("/proc/self/cwd")}) {
        fs::create_symlink(link, standby_bootflash());
        EXPECT_EQ(-1, sync(source, TEMPORARY_IMAGE)) << link;
        EXPECT_EQ(0U, files_in(outside)) << link;
        fs::remove(standby_bootflash());
    }
}

TEST_F(Inventory, SyncFollowsALinkInsideOfTheRoot)
{
    insert_standby();
    fs::create_directories(below("slots/6/root/disk/1"));
    fs::remove(standby_bootflash());
    fs::create_symlink("/disk/1", standby_bootflash());
    ASSERT_EQ(0, sync(make_source("image"), TEMPORARY_IMAGE)) << std::strerror(errno);
    EXPECT_EQ("image", content_of(below("slots/6/root/disk/1/.tmpbios.bin")));
}

TEST_F(Inventory, SyncReplacesALinkAtTheDestination)
{
    insert_standby();
    const fs::path victim = folder_.path("victim");
    std::ofstream(victim) << "precious";
    fs::create_symlink(victim, standby_bootflash() / ".tmpbios.bin");
    ASSERT_EQ(0, sync(make_source("image"), TEMPORARY_IMAGE));
    EXPECT_EQ("precious", content_of(victim));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(standby_bootflash() / ".tmpbios.bin")));
}

TEST_F(Inventory, SyncWorksWithoutResolutionByTheKernelAndThenRefusesLinks)
{
    insert_standby();
    const std::string source = make_source("image");
    for (const int error : {ENOSYS, EPERM}) {
        fs::remove(standby_bootflash() / ".tmpbios.bin");
        EXPECT_EQ(0, in_child([&] {
                      forbid_openat2(error);
                      return sync(source, TEMPORARY_IMAGE) == 0 ? 0 : 1;
                  }));
        EXPECT_EQ("image", content_of(standby_bootflash() / ".tmpbios.bin"));
    }
    const fs::path outside = folder_.path("outside");
    fs::create_directories(outside);
    fs::remove_all(standby_bootflash());
    fs::create_symlink(outside, standby_bootflash());
    EXPECT_EQ(ENOTDIR, in_child([&] {
                  forbid_openat2(ENOSYS);
                  return sync(source, TEMPORARY_IMAGE) == 0 ? 0 : errno;
              }));
    EXPECT_EQ(0U, files_in(outside));
}

TEST_F(Inventory, SyncRefusesABootflashOfTheCardsOwn)
{
    insert_standby();
    put("slots/6/private_bootflash", "");
    const std::string source = make_source("image");
    for (const char *destination : {TEMPORARY_IMAGE, "//bootflash/./image"}) {
        EXPECT_EQ(-1, sync(source, destination)) << destination;
        EXPECT_EQ(ENOTSUP, errno) << destination;
    }
    EXPECT_EQ(0U, files_in(standby_bootflash()));
    fs::create_directories(below("slots/6/root/mnt/pss"));
    EXPECT_EQ(0, sync(source, "/mnt/pss/record"));
    EXPECT_EQ("image", content_of(below("slots/6/root/mnt/pss/record")));
}

// Card control

TEST_F(Inventory, RegisterFileHoldsTheLastValue)
{
    ASSERT_EQ(0, cctrl_write_reg3(186, 0x800)); // its folder is made on demand
    EXPECT_EQ("0x800\n", content_of(below("slots/5/registers/186")));
    ASSERT_EQ(0, cctrl_write_reg3(186, 0));
    EXPECT_EQ("0x0\n", content_of(below("slots/5/registers/186")));
    ASSERT_EQ(0, cctrl_write_reg3(UINT32_MAX, UINT32_MAX));
    EXPECT_EQ("0xffffffff\n", content_of(below("slots/5/registers/4294967295")));
}

TEST_F(Inventory, RegisterWriteFailsOnDemandAndChangesNothing)
{
    ASSERT_EQ(0, cctrl_write_reg3(186, 0x800));
    put("slots/5/registers/fault", "");
    EXPECT_NE(0, cctrl_write_reg3(186, 0xc00));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ("0x800\n", content_of(below("slots/5/registers/186")));
}

TEST_F(Inventory, RegisterWriteFailsOutsideOfACard)
{
    own_slot(0);
    EXPECT_NE(0, cctrl_write_reg3(186, 0x800));
    EXPECT_EQ(ENODEV, errno);
}

// SPROM

class Sprom : public Inventory
{
protected:
    Sprom() { (void)sprom_cleanup_dev(3, 0, 512, 0); }

    int32_t read(uint32_t offset, uint32_t length, uint32_t device = 3)
    {
        bytes_.assign(512, 0xee);
        sse_sprom_read_request_t request{};
        request.device = device;
        request.offset = static_cast<uint16_t>(offset);
        request.length = static_cast<uint16_t>(length);
        request.destination = bytes_.data();
        errno = 0;
        return sse_call(SSE_CALL_SPROM_READ, &request);
    }

    std::vector<unsigned char> bytes_;
};

TEST_F(Sprom, ContentIsTheFileWithTheLiveWordLaidOver)
{
    put("slots/5/sprom", std::string(300, 'x'));
    put("inventory/5/hw_change_bit", "0x04030201\n");
    ASSERT_EQ(0, sprom_init_dev(3, 0, 512, 0));
    ASSERT_EQ(0, read(0, 512));
    EXPECT_EQ('x', bytes_[173]);
    EXPECT_EQ((std::vector<unsigned char>{1, 2, 3, 4}),
              std::vector<unsigned char>(bytes_.begin() + 174, bytes_.begin() + 178));
    EXPECT_EQ('x', bytes_[178]);
    EXPECT_EQ('x', bytes_[299]);
    EXPECT_EQ(0, bytes_[300]);
    EXPECT_EQ(0, bytes_[511]);
    put("inventory/5/hw_change_bit", "3\n");
    ASSERT_EQ(0, read(174, 2));
    EXPECT_EQ(3, bytes_[0]);
    EXPECT_EQ(0, bytes_[1]);
    EXPECT_EQ(0xee, bytes_[2]); // nothing beyond the length asked for
}

TEST_F(Sprom, AbsentFileReadsAsZeros)
{
    put("inventory/5/hw_change_bit", "2\n");
    ASSERT_EQ(0, sprom_init_dev(3, 0, 512, 0));
    ASSERT_EQ(0, read(0, 512));
    EXPECT_EQ(0, bytes_[0]);
    EXPECT_EQ(2, bytes_[174]);
}

TEST_F(Sprom, OversizedFileIsCut)
{
    put("slots/5/sprom", std::string(5000, 'x'));
    put("inventory/5/hw_change_bit", "2\n");
    ASSERT_EQ(0, sprom_init_dev(3, 0, 512, 0));
    ASSERT_EQ(0, read(511, 1));
    EXPECT_EQ('x', bytes_[0]);
    EXPECT_EQ(0xee, bytes_[1]);
}

TEST_F(Sprom, ReadNeedsAnInitialisedDevice)
{
    put("inventory/5/hw_change_bit", "2\n");
    EXPECT_LT(read(0, 512), 0);
    EXPECT_EQ(EINVAL, errno);
    EXPECT_LT(read(0, 0), 0);
    ASSERT_EQ(0, sprom_init_dev(3, 0, 512, 0));
    EXPECT_EQ(0, read(0, 512));
    ASSERT_EQ(0, sprom_cleanup_dev(3, 0, 512, 0));
    EXPECT_LT(read(0, 512), 0);
}

TEST_F(Sprom, BoundsAreChecked)
{
    put("inventory/5/hw_change_bit", "2\n");
    EXPECT_LT(sprom_init_dev(3, 0, 513, 0), 0);
    EXPECT_EQ(EINVAL, errno);
    EXPECT_LT(sprom_init_dev(3, UINT32_MAX, 2, 0), 0);
    EXPECT_LT(sprom_init_dev(3, 2, UINT32_MAX, 0), 0);
    ASSERT_EQ(0, sprom_init_dev(3, 100, 100, 0));
    EXPECT_EQ(0, read(100, 100));
    for (const auto &[offset, length] : {std::pair{99U, 1U}, {100U, 101U}, {199U, 2U}, {0xffffU, 0xffffU}}) {
        EXPECT_LT(read(offset, length), 0) << offset;
        EXPECT_EQ(EINVAL, errno) << offset;
        EXPECT_EQ(0xee, bytes_[0]) << offset;
    }
}

TEST_F(Sprom, OnlyDeviceThreeIsThere)
{
    put("inventory/5/hw_change_bit", "2\n");
    EXPECT_LT(sprom_init_dev(2, 0, 512, 0), 0);
    EXPECT_EQ(ENODEV, errno);
    EXPECT_LT(sprom_cleanup_dev(4, 0, 512, 0), 0);
    ASSERT_EQ(0, sprom_init_dev(3, 0, 512, 0));
    EXPECT_LT(read(0, 512, 1), 0);
    EXPECT_EQ(ENODEV, errno);
}

TEST_F(Sprom, ReadFailsWithoutTheInventoryValue)
{
    ASSERT_EQ(0, sprom_init_dev(3, 0, 512, 0));
    EXPECT_LT(read(0, 512), 0);
    EXPECT_EQ(EIO, errno);
}

TEST_F(Sprom, UnknownServiceCallIsRefused)
{
    sse_sprom_read_request_t request{};
    EXPECT_LT(sse_call(101, &request), 0);
    EXPECT_LT(sse_call(SSE_CALL_SPROM_READ, nullptr), 0);
    EXPECT_EQ(EINVAL, errno);
}

} // namespace
