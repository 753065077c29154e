// What holds for all of platform/: a command that the daemon runs inherits nothing that a call has opened.
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

#include "bios_flash.h"
#include "cmi.h"
#include "contract_test.h"
#include "exec_cmd.h"
#include "image_files.h"
#include "modlock.h"
#include "pfm.h"
#include "sdwrap.h"
#include "sysmgr.h"

namespace
{

constexpr std::uint32_t NODE_ID = 0xfe05; // of no module
constexpr std::uint32_t LOCK_REQUEST[4] = {1, 0, 0, 0x4071000b};
constexpr std::uint32_t EVENT_TYPE = 0x730000;

std::string target_of(int descriptor)
{
    char target[512];
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t length = ::readlink(link.c_str(), target, sizeof target);
    return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : "unknown";
}

// The platform's descriptors that a command would get.
std::string inheritable_descriptors()
{
    std::string found;
    for (const int descriptor : open_descriptors()) {
        const int flags = ::fcntl(descriptor, F_GETFD);
        if (!foreign_descriptors().contains(descriptor) && flags >= 0 && (flags & FD_CLOEXEC) == 0)
            found += std::to_string(descriptor) + " (" + target_of(descriptor) + ") ";
    }
    return found;
}

using Descriptors = OtherCardTest;

} // namespace

TEST(DescriptorsOfOneCard, AreCloseOnExec)
{
    ASSERT_GE(own_endpoint(), 0);
    (void)register_debug();
    (void)register_syslog();
    (void)sdwrap_hist_event(EVENT_TYPE, 4, "text");
    (void)sdwrap_chk_int(102, 0, 0, 1);
    EXPECT_EQ(inheritable_descriptors(), "") << "after mts_bind and the calls of sdwrap.h";

    ASSERT_EQ(prepare_locks(), 0);
    ASSERT_EQ(modlock_module_lock(129, NODE_ID, LOCK_REQUEST), 0) << "errno " << errno;
    EXPECT_EQ(inheritable_descriptors(), "") << "while a module lock is held";
    (void)modlock_module_unlock(129, NODE_ID);

    platform_info_t own{};
    card_module_info_t card{};
    std::vector<pfm_module_record_t> records(PFM_MODULE_COUNT);
    (void)get_platform_info(&own);
    (void)get_card_module_info(&card);
    (void)pfm_get_all_modules_in_chassis(own_endpoint(), records.data(), PFM_MODULE_COUNT);
    (void)sysmgr_cli_supstate_get(own_endpoint());
    (void)sysmgr_is_upgrade_restart();
    char version[BIOS_VERSION_TEXT_BYTES];
    (void)get_bios_flash_version(version, BIOS_FLASH_PRIMARY);
    (void)srg_sw_interim_ver_file_get("/dev/null");
    (void)exec_cmd_with_io_print("true", nullptr, nullptr, nullptr, 0);
    EXPECT_EQ(inheritable_descriptors(), "") << "after the calls of the other headers";
}

TEST_F(Descriptors, AreCloseOnExecAfterMessagesAndRequests)
{
    ASSERT_EQ(mts_send(own_endpoint(), peer_node_, peer_sap(), TEST_OPCODE, "x", 1, 0, 0, 0), 0);
    ASSERT_EQ(peer_->ask("receive 0 1").substr(0, 8), "message ");
    peer_->tell("answer news " + std::to_string(contract_sap(0)));
    void *response = nullptr;
    std::uint32_t length = 1;
    ASSERT_EQ(result_code(cmi_remote_req_resp(TEST_OPCODE, 3, "x", &response, &length, "", "", peer_sap(),
                                              peer_node_, own_endpoint(), 20)),
              0);
    std::free(response);
    const held_message news = receive(10);
    ASSERT_TRUE(news);
    EXPECT_EQ(inheritable_descriptors(), "");
}
