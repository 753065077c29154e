#include "module_programming.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "bios_log.h"
#include "bios_opcodes.h"
#include "bios_results.h"
#include "cmi.h"
#include "endpoints.h"
#include "module_node.h"

namespace
{

constexpr int MAX_TIME_OUTS = 1800; // one more ends the wait
constexpr std::uint32_t RECEIVE_WAIT_LIMIT = 1;

bool timed_out(int error)
{
    return error == MTS_ERRNO_TIMED_OUT || error == MTS_ERRNO_INTERRUPTED;
}

std::int32_t completion_status(std::int32_t handle, mts_message_t *message)
{
    const auto *done = static_cast<const bios_programming_done_t *>(mts_payload_get(message));
    const std::uint32_t status = done->result.load();
    BIOS_LOG("MTS_OPC_BIOS_PROGRAMMING_DONE status=%x", status);
    (void)mts_drop(handle, message);
    return bios_signed(status);
}

} // namespace

std::int32_t bios_prog_in_modules(std::int32_t handle, const pfm_module_record_t *,
                                  const bios_programming_req_t *request_body, std::uint32_t requester_node,
                                  std::uint32_t requester_sap)
{
    const std::uint32_t module = request_body->programming_mod_num.load();
    const std::uint32_t node = get_nodeid_for_module(handle, module) & 0xffff;
    BIOS_LOG("mod=%d dest_node=%x", static_cast<int>(module), node);

    void *response = nullptr;
    std::uint32_t length = sizeof *request_body;
    const std::int32_t rc = cmi_remote_req_resp(MTS_OPC_BIOS_PROGRAMMING_START, REQUEST_TYPE, request_body,
                                                &response, &length, MODULE_REQUEST_TAG, MODULE_REQUEST_TAG,
                                                BIOS_DAEMON_SAP, node, handle, MODULE_REQUEST_WAIT_LIMIT);
    const int request_errno = errno;
    std::free(response);
    BIOS_LOG("resp = %d", rc);
    if (rc != 0) {
        BIOS_LOG("Could not send bios upgrade cmd to the modules err=%d ret=%d", request_errno, rc);
        return bios_signed(BIOS_ERR_NOT_SENT);
    }
    return wait_for_completion(handle, requester_node, requester_sap);
}

std::int32_t wait_for_completion(std::int32_t handle, std::uint32_t requester_node, std::uint32_t requester_sap)
{
    int time_outs = 0;
    for (;;) {
        const auto options = receive_options(RECEIVE_WAIT_LIMIT);
        mts_message_t *message = nullptr;
        if (mts_recv(handle, &message, options.data()) == 0) {
            const std::uint32_t opcode = mts_opc_get(message);
            if (opcode == MTS_OPC_BIOS_PROGRAMMING_DONE)
                return completion_status(handle, message);
            if (opcode == MTS_OPC_BIOS_PROGRAMMING_PROGRESS) {
                (void)mts_send(handle, requester_node, requester_sap, MTS_OPC_BIOS_PROGRAMMING_PROGRESS,
                               mts_payload_get(message), sizeof(bios_programming_progress_t), 0, 0, 0);
            }
            (void)mts_drop(handle, message);
            continue;
        }
        if (!timed_out(errno)) {
            BIOS_LOG("ERROR: mts_recv error = %d", errno);
            continue;
        }
        ++time_outs;
        std::putchar('W');
        (void)std::fflush(stdout); // a progress mark for who looks on
        if (time_outs > MAX_TIME_OUTS)
            return bios_signed(BIOS_ERR_NO_COMPLETION);
    }
}
