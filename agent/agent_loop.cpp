#include "agent_loop.h"

#include "agent_requests.h"
#include "c_boundary.h"
#include "image_facts.h"
#include "module_locks.h"
#include "monotonic_clock.h"
#include "mts_tools.h"
#include "worker.h"

namespace
{

constexpr std::int64_t IDLE_WAIT_US = 3600 * MICROSECONDS; // a lasting error is returned after a pause

} // namespace

void serve_card(std::int32_t handle)
{
    start_module_locks(handle);
    best_effort(remove_unpacked_leftovers);
    for (;;) {
        const std::int64_t wait_us = module_locks()->wait_limit_us();
        mts_message_t *message = nullptr;
        const bool came = mts_recv_within(handle, &message, wait_us < 0 ? IDLE_WAIT_US : wait_us) == 0;
        best_effort([] { module_locks()->tick(); });
        reap_workers();
        if (came)
            serve(handle, message);
    }
}
