#include "living_child.h"

#include <sys/wait.h>

#include "bios_messages.h"
#include "bios_opcodes.h"
#include "bios_results.h"
#include "chassis_dir.h"
#include "cmi.h"
#include "programming_child.h"
#include "sysmgr.h"

namespace
{

// One that has ended and was not reaped yet counts: its end was not reported.
bool has_own_child()
{
    siginfo_t ended = {};
    return ::waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) == 0;
}

bool is_in_the_way(std::int32_t handle)
{
    if (has_own_child())
        return sysmgr_cli_supstate_get(handle) != SYSMGR_SUP_STATE_ACTIVE;
    return programming_child_lives(chassis_own_slot());
}

} // namespace

bool living_child_refuses(std::int32_t handle, mts_message_t *message)
{
    if (mts_opc_get(message) != MTS_OPC_BIOS_PROGRAMMING_START || !is_in_the_way(handle))
        return false;
    const bios_programming_reply_t reply = {};
    (void)cmi_response(&reply, sizeof reply, handle, message, BIOS_ERR_BUSY); // who has asked may be gone
    return true;
}
