#include "message_loop.h"

#include <cerrno>
#include <sys/wait.h>

#include "bios_daemon_state.h"
#include "bios_log.h"
#include "bios_messages.h"
#include "bios_opcodes.h"
#include "bios_results.h"
#include "endpoints.h"
#include "loader_files.h"
#include "loader_install.h"
#include "module_lock.h"
#include "mts.h"
#include "programming_start.h"
#include "running_version.h"
#include "sdwrap.h"
#include "sysmgr.h"
#include "version_requests.h"

namespace
{

constexpr std::uint32_t WAIT_IDLE_S = 5;
constexpr std::uint32_t WAIT_PROGRAMMING_S = 1; // so that the child's end is noticed soon
constexpr std::int32_t NOT_A_DEBUG_MESSAGE = 1;

// A handler answers the request itself; the loop drops the message. 0, or the result that ends the daemon.
using request_handler = std::uint32_t (*)(daemon_context &context, mts_message_t *message);

std::uint32_t handle_module_lock(daemon_context &context, mts_message_t *message)
{
    context.payload = mts_payload_get(message);
    serve_module_lock(context.handle, message, context.payload);
    return BIOS_OK;
}

struct served_opcode {
    std::uint32_t opcode;
    request_handler handler;
};

constexpr served_opcode SERVED_OPCODES[] = {
    {MTS_OPC_BIOS_INSTALL_LOADER, handle_install_loader},
    {MTS_OPC_BIOS_GET_LOADER_IMAGE, handle_get_loader_image},
    {MTS_OPC_BIOS_GET_KS_IMAGE, handle_get_ks_image},
    {MTS_OPC_BIOS_MODULE_LOCK, handle_module_lock},
    {MTS_OPC_BIOS_GET_SRC_BIOS_VERSION, handle_get_src_bios_version},
    {MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, handle_get_mod_bios_version},
    {MTS_OPC_BIOS_PROGRAMMING_START, handle_programming_start},
    {MTS_OPC_BIOS_GET_LC_BIOS_VERSION, handle_get_lc_bios_version},
};

std::uint32_t dispatch(daemon_context &context, std::uint32_t opcode, mts_message_t *message)
{
    for (const served_opcode &served : SERVED_OPCODES) {
        if (served.opcode == opcode)
            return served.handler(context, message);
    }
    (void)mts_respond_reject(context.handle, 0, 0, message, 0, 0);
    return BIOS_OK;
}

std::int32_t receive(const daemon_context &context, mts_message_t **message)
{
    const auto options = receive_options(bios_programming_in_progress != 0 ? WAIT_PROGRAMMING_S : WAIT_IDLE_S);
    return mts_recv(context.handle, message, options.data());
}

// The child's exit byte is the low byte of its result. A child that was killed has none, and counts as 0.
std::uint32_t child_result(std::int32_t status)
{
    const std::uint32_t exit_byte = static_cast<std::uint32_t>(status) >> 8 & 0xff;
    return exit_byte == 0 ? BIOS_OK : BIOS_RESULT_PREFIX + exit_byte;
}

void report_result(daemon_context &context, std::uint32_t result)
{
    if (context.sup_state != SYSMGR_SUP_STATE_ACTIVE) {
        const bios_programming_done_t done{be32::of(result)};
        (void)mts_send(context.handle, context.requester_addr.node, context.requester_addr.sap,
                       MTS_OPC_BIOS_PROGRAMMING_DONE, &done, sizeof done, 0, 0, 0);
        return;
    }
    (void)bios_daemon_release_lock(context.handle, context.my_module_num, context.programming_mod_num,
                                   &context.lock_data);
    const bios_programming_notify_t notify{be32::of(result), be32::of(context.programming_mod_num)};
    (void)mts_send(context.handle, MTS_NODE_LISTENERS, 0, MTS_OPC_BIOS_PROGRAMMING_NOTIFY, &notify, sizeof notify,
                   0, 0, 0);
}

// The raw result of waitpid is compared: after a failed fork (child_pid -1) and without children this matches
// on every pass, until a fork succeeds.
void reap_child(daemon_context &context)
{
    const std::int32_t pid = ::waitpid(-1, &context.child_status, WNOHANG);
    if (pid == 0 || pid != context.child_pid)
        return;
    bios_programming_in_progress = 0;
    const std::uint32_t result = child_result(context.child_status);
    if (result != BIOS_OK)
        withdraw_running_version();
    BIOS_LOG("Un-mark in-progress exit=%x retcode=%x", static_cast<unsigned>(context.child_status), result);
    report_result(context, result);
}

} // namespace

std::uint32_t run_message_loop(daemon_context &context)
{
    for (;;) {
        mts_message_t *message = nullptr;
        const std::int32_t received = receive(context, &message);
        reap_child(context);
        if (received != 0)
            continue;

        const std::uint32_t opcode = mts_opc_get(message);
        BIOS_LOG("Got an MTS msg rc=%d opc=%d(0x%x)", 0, static_cast<int>(opcode), opcode);
        std::uint32_t ending = BIOS_OK;
        if (sdwrap_process_msg(context.handle, message) == NOT_A_DEBUG_MESSAGE)
            ending = dispatch(context, opcode, message);
        (void)mts_drop(context.handle, message);
        if (ending != BIOS_OK)
            return ending;
    }
}
