// bios_daemon: keeps the BIOS flashes of a modular switch's cards in step with the images of the system
// software. One long-lived, single-threaded process on each supervisor card. This file brings the process up:
// exit handler, identity, card tables, endpoint, debug and syslog registration; then the message loop serves.
// What a start-up step cannot do ends the process with that step's code.
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "bios_daemon_state.h"
#include "bios_log.h"
#include "bios_opcodes.h"
#include "bios_results.h"
#include "boot_flash_report.h"
#include "card_identification.h"
#include "card_table.h"
#include "daemon_context.h"
#include "endpoints.h"
#include "exit_handler.h"
#include "message_loop.h"
#include "modlock.h"
#include "mts.h"
#include "pfm.h"
#include "running_version.h"
#include "sdwrap.h"

namespace
{

constexpr std::uint32_t START_UP_FAILED = 1;
constexpr const char *DAEMON_NAME = "bios_daemon";
constexpr const char *DAEMON_TITLE = "BIOS Daemon";
constexpr std::uint32_t DEBUG_CATEGORIES = sizeof elem_desc / sizeof elem_desc[0];

std::uint32_t start_endpoint(daemon_context &context)
{
    platform_info_t platform_info = {};
    if (get_platform_info(&platform_info) != 0) {
        BIOS_LOG("Error: in getting platform info err=%d", errno);
        return START_UP_FAILED;
    }
    context.my_module_num = platform_info.module_num;
    (void)modlock_init();
    context.handle = mts_bind(BIND_KIND, BIOS_DAEMON_SAP, BIND_OPTIONS, "BIOS upgrade daemon");
    if (context.handle == -1)
        return BIOS_ERR_BIND;
    BIOS_LOG("Started Daemon");
    return BIOS_OK;
}

std::uint32_t inventory_card_id(std::uint8_t module_num)
{
    return module_num >= 1 && module_num <= PFM_MODULE_COUNT ? pfm_info[module_num - 1].card_id : 0;
}

std::uint32_t identify_card(const daemon_context &context, std::uint32_t &card_id)
{
    (void)pfm_get_all_modules_in_chassis(context.handle, pfm_info, PFM_MODULE_COUNT);
    card_id = inventory_card_id(context.my_module_num);
    BIOS_LOG(" sw_card_id %d my_module_num %d", static_cast<int>(card_id), context.my_module_num);
    if (card_id != 0)
        return BIOS_OK;

    card_id = get_sw_card_id() & 0xffff;
    if (card_id == 0) {
        BIOS_LOG("get sw card id failed");
        return BIOS_ERR_CARD_ID;
    }
    BIOS_LOG("%s: pfm_get_all_modules_in_chassis() failed to get sw_card_id for sup_local_slot, "
             "trying with get_sw_card_id() = %d",
             "main", static_cast<int>(card_id));
    return BIOS_OK;
}

std::uint32_t load_card_table(const daemon_context &context, std::uint32_t card_id)
{
    self_card_id_tbl = bios_get_card_id_ent(card_id, 0);
    BIOS_LOG(" sw_card_id %d my_module_num %d", static_cast<int>(card_id), context.my_module_num);
    if (self_card_id_tbl == nullptr) {
        BIOS_LOG("Error: getting card id tbl info err=%d", errno);
        return BIOS_ERR_NO_ENTRIES;
    }
    bios_flash_instance =
        static_cast<char *>(std::malloc(std::size_t{self_card_id_tbl->count} * BIOS_VERSION_TEXT_BYTES));
    if (bios_flash_instance == nullptr) {
        BIOS_LOG("Error: flash instance is null err=%d", errno);
        return BIOS_ERR_NO_MEMORY;
    }
    return BIOS_OK;
}

std::uint32_t register_diagnostics(const daemon_context &context)
{
    if (const std::int32_t rc =
            sdwrap_dbg_init(context.handle, DAEMON_NAME, DAEMON_TITLE, DEBUG_CATEGORIES, elem_desc, 0, 0, 0);
        rc != 0) {
        BIOS_LOG("ERROR: in sdwrap_dbg_init - %d err=%d", rc, errno);
        return START_UP_FAILED;
    }
    sdwrap_sys_facility = &syslog_fac_LOG_BIOS_DAEMON;
    if (const std::int32_t rc = sdwrap_sys_init_helper(context.handle, DAEMON_NAME, DAEMON_TITLE,
                                                       syslog_fac_LOG_BIOS_DAEMON.number, 0, 0, 0);
        rc != 0) {
        BIOS_LOG("ERROR: in sdwrap_sys_init - %d err=%d", rc, errno);
        return START_UP_FAILED;
    }
    return BIOS_OK;
}

std::uint32_t start_up(daemon_context &context)
{
    if (const std::uint32_t code = start_endpoint(context); code != BIOS_OK)
        return code;
    std::uint32_t card_id = 0;
    if (const std::uint32_t code = identify_card(context, card_id); code != BIOS_OK)
        return code;
    if (const std::uint32_t code = load_card_table(context, card_id); code != BIOS_OK)
        return code;
    (void)mod_bios_version_init(context.handle);
    if (const std::uint32_t code = register_diagnostics(context); code != BIOS_OK)
        return code;

    // Always the primary flash: bios_check_boot_failure is not asked.
    BIOS_LOG("Boot from Primary BIOS Flash");
    raise_syslog_message(syslog_msg_BIOS_DAEMON_PRI_BOOT);
    return BIOS_OK;
}

} // namespace

int main()
{
    // Line by line also into a file, so that a message is there when its reader looks.
    (void)std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    std::puts("sup: main function: BIOS programming");
    if (::on_exit(biosd_on_exit, nullptr) != 0) {
        BIOS_LOG("Error when installing on_exit() function");
        std::exit(-1);
    }

    daemon_context context = {};
    if (const std::uint32_t code = start_up(context); code != BIOS_OK)
        return static_cast<int>(code);

    BIOS_LOG("Going to infinite-loop for MTS processing");
    (void)std::fflush(stdout);
    return static_cast<int>(run_message_loop(context));
}
