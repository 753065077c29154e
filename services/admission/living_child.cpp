#include "living_child.h"

#include <sys/wait.h>

#include "chassis_dir.h"
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

} // namespace

bool living_child_refuses(std::int32_t handle)
{
    if (has_own_child())
        return sysmgr_cli_supstate_get(handle) != SYSMGR_SUP_STATE_ACTIVE;
    return programming_child_lives(chassis_own_slot());
}

bool is_programming_under_way()
{
    return has_own_child() || programming_child_lives(chassis_own_slot());
}
