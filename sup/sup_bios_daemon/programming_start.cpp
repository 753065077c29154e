#include "programming_start.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "bios_daemon_state.h"
#include "bios_log.h"
#include "bios_messages.h"
#include "bios_results.h"
#include "card_groups.h"
#include "card_identification.h"
#include "cmi.h"
#include "endpoints.h"
#include "flash_selection.h"
#include "image_files.h"
#include "module_lock.h"
#include "programming_child.h"
#include "request_body.h"
#include "running_version.h"
#include "sysmgr.h"
#include "tarvik_a_override.h"

namespace
{

constexpr int CHILD_NOT_BOUND_STATUS = 16;

// The local path of the request's image, or null: with status 0 when none is named, else BIOS_ERR_URI.
const char *map_image(bios_programming_req_t &request, std::uint32_t &status)
{
    status = BIOS_OK;
    if (request.def.load() != 0)
        return nullptr;
    // A text that fills its field is cut there: the mapper gets a copy, the request is forwarded as it came.
    char cut_uri[sizeof request.uri] = {};
    const bool ended = std::memchr(request.uri, '\0', sizeof request.uri) != nullptr;
    if (!ended)
        std::memcpy(cut_uri, request.uri, sizeof cut_uri - 1);
    const char *image_path = uri_map_targetfs_path_get(ended ? request.uri : cut_uri, request.local_path);
    if (image_path == nullptr) {
        BIOS_LOG("Unable to get tagetfs path for the URI");
        status = BIOS_ERR_URI;
    }
    return image_path;
}

// The module meant. On some supervisors it is not the one asked for; those of them that can select their flash get
// the first one selected.
std::uint32_t module_meant(const daemon_context &context, std::uint32_t card_id, std::uint32_t asked_for)
{
    if (has_flash_selection(card_id))
        (void)bios_sel_flash(0);
    if (!is_tarvik_a_supervisor(card_id))
        return asked_for;
    return override_module_num(card_id, asked_for, context.my_module_num);
}

// The status that the request is answered with; with 0 the active supervisor holds the locks.
std::uint32_t admit(daemon_context &context, std::uint32_t programming_mod_num, std::uint32_t uri_status)
{
    if (context.sup_state != SYSMGR_SUP_STATE_ACTIVE)
        return uri_status;
    if (bios_programming_in_progress != 0) {
        BIOS_LOG("Sorry busy ... in progress here ");
        return BIOS_ERR_BUSY;
    }
    // Replaces the URI's status: with the lock held, a URI that did not map does not stop the request.
    return static_cast<std::uint32_t>(
        bios_daemon_acquire_lock(context.handle, context.my_module_num, programming_mod_num, &context.lock_data));
}

void answer(const daemon_context &context, mts_message_t *message, std::uint32_t status)
{
    const bios_programming_reply_t reply = {};
    (void)cmi_response(&reply, sizeof reply, context.handle, message, status);
}

[[noreturn]] void run_child(const daemon_context &context, const bios_programming_req_t &request,
                            const char *image_path, std::uint32_t programming_mod_num)
{
    const std::int32_t handle = mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, "BIOS upgrade child daemon");
    if (handle == -1)
        std::exit(CHILD_NOT_BOUND_STATUS);
    BIOS_LOG("From a forked child ..., my_module_num=%d, programming_mod_num=%d", context.my_module_num,
             static_cast<int>(programming_mod_num));
    const std::int32_t result = bios_daemon_child_process(
        handle, context.requester_addr.node, context.requester_addr.sap, &request, context.sup_state, image_path,
        programming_mod_num, context.my_module_num, request.type);
    BIOS_LOG("Child returned %x and exiting...", static_cast<unsigned>(result));
    std::exit(result & 0xff);
}

// Forks the child that does the request.
void start_programming(daemon_context &context, const bios_programming_req_t &request, const char *image_path,
                       std::uint32_t programming_mod_num)
{
    BIOS_LOG("Mark in-progress here mod=%d", static_cast<int>(programming_mod_num));
    record_running_version();

    (void)std::fflush(stdout); // the child would print what is buffered a second time
    const pid_t pid = ::fork();
    if (pid == 0)
        run_child(context, request, image_path, programming_mod_num);
    context.child_pid = pid; // -1 as well: see the loop's reaping
    context.programming_mod_num = programming_mod_num;
}

} // namespace

std::uint32_t handle_programming_start(daemon_context &context, mts_message_t *message)
{
    context.sup_state = sysmgr_cli_supstate_get(context.handle);
    context.payload = mts_payload_get(message);
    auto request = request_body<bios_programming_req_t>(context.payload);
    BIOS_LOG("got MTS_OPC_BIOS_PROGRAMMING_START type(%d)", request.type);
    mts_address_t requester = {};
    (void)mts_saddr_get(message, &requester);

    const std::uint32_t card_id = get_sw_card_id() & 0xffff;
    if (card_id == 0) {
        BIOS_LOG("get sw card id failed");
        return BIOS_ERR_CARD_ID;
    }
    const std::uint32_t programming_mod_num = module_meant(context, card_id, request.programming_mod_num.load());
    std::uint32_t uri_status = BIOS_OK;
    const char *image_path = map_image(request, uri_status);
    BIOS_LOG("uri_name=%s def=%d rc=%x", image_path != nullptr ? image_path : "(null)",
             static_cast<int>(request.def.load()), uri_status);

    const std::uint32_t status = admit(context, programming_mod_num, uri_status);
    answer(context, message, status);
    if (status != BIOS_OK)
        return BIOS_OK;
    bios_programming_in_progress = 1;
    context.requester_addr = requester;
    start_programming(context, request, image_path, programming_mod_num);
    return BIOS_OK;
}
