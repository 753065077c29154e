#include "version_requests.h"

#include <sys/resource.h>
#include <unistd.h>

#include "bios_daemon_state.h"
#include "bios_log.h"
#include "bios_messages.h"
#include "bios_results.h"
#include "card_groups.h"
#include "card_identification.h"
#include "module_version.h"
#include "request_body.h"
#include "self_version.h"
#include "source_version.h"
#include "tarvik_a_override.h"

namespace
{

// The asker with this service access point is served at the lowest priority: its query is for display alone.
constexpr std::uint32_t LOW_PRIORITY_SAP = 93;
constexpr int LOW_PRIORITY = 20;
constexpr int NORMAL_PRIORITY = 0;

void set_priority(int priority)
{
    (void)::setpriority(PRIO_PROCESS, static_cast<id_t>(::getpid()), priority);
}

} // namespace

std::uint32_t handle_get_src_bios_version(daemon_context &context, mts_message_t *message)
{
    context.payload = mts_payload_get(message);
    BIOS_LOG("called MTS_OPC_BIOS_GET_SRC_BIOS_VERSION");
    const auto request = request_body<bios_src_version_req>(context.payload);
    const bool low_priority = request.progress_addr.sap == LOW_PRIORITY_SAP;
    if (low_priority)
        set_priority(LOW_PRIORITY);
    (void)bios_return_src_version(context.handle, &request, message);
    if (low_priority)
        set_priority(NORMAL_PRIORITY);
    return BIOS_OK;
}

std::uint32_t handle_get_mod_bios_version(daemon_context &context, mts_message_t *message)
{
    context.payload = mts_payload_get(message);
    BIOS_LOG("called MTS_OPC_BIOS_GET_MOD_BIOS_VERSION");
    std::uint32_t module_num = request_body<bios_mod_version_req_t>(context.payload).module_num.load();
    BIOS_LOG("NEW VERSION: SUP : Got version request for mod=%d my mod = %d", static_cast<int>(module_num),
             context.my_module_num);

    const std::uint32_t card_id = get_sw_card_id() & 0xffff;
    if (card_id == 0) {
        BIOS_LOG("get sw card id failed");
        return BIOS_ERR_CARD_ID;
    }
    if (is_tarvik_a_supervisor(card_id))
        module_num = override_module_num(card_id, module_num, context.my_module_num);

    if (module_num != context.my_module_num)
        (void)bios_get_version_info_from_mod(context.handle, module_num, message, pfm_info, module_num);
    else
        (void)bios_get_new_self_version_info(context.handle, module_num, message, context.payload,
                                             self_card_id_tbl);
    return BIOS_OK;
}

std::uint32_t handle_get_lc_bios_version(daemon_context &context, mts_message_t *message)
{
    BIOS_LOG("called MTS_OPC_BIOS_GET_LC_BIOS_VERSION");
    // The payload is the one of an earlier request: this one's has nothing in it.
    (void)bios_get_self_version_info(context.handle, message, context.payload, self_card_id_tbl);
    return BIOS_OK;
}
