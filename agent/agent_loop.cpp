#include "agent_loop.h"

#include <algorithm>

#include "agent_requests.h"
#include "boot_record.h"
#include "c_boundary.h"
#include "card_roster.h"
#include "card_transfers.h"
#include "event_heads.h"
#include "flash_history.h"
#include "flash_orders.h"
#include "image_facts.h"
#include "module_locks.h"
#include "monotonic_clock.h"
#include "mts_tools.h"
#include "worker.h"

namespace
{

constexpr std::int64_t IDLE_WAIT_US = 3600 * MICROSECONDS; // a lasting error is returned after a pause

// Until something is due; limit_us as of wait_limit_us.
std::int64_t sooner(std::int64_t wait_us, std::int64_t limit_us)
{
    return limit_us < 0 ? wait_us : std::min(wait_us, limit_us);
}

} // namespace

void serve_card(std::int32_t handle, inventory_kind inventory)
{
    if (inventory == inventory_kind::own)
        start_card_roster(handle);
    start_module_locks(handle);
    best_effort(note_boot);
    best_effort(remove_unpacked_leftovers);
    best_effort(record_own_family);
    best_effort(prepare_event_logs);
    start_card_transfers();
    start_head_teller(handle);
    for (;;) {
        std::int64_t wait_us = sooner(IDLE_WAIT_US, module_locks()->wait_limit_us());
        wait_us = sooner(wait_us, card_transfers()->wait_limit_us());
        wait_us = sooner(wait_us, worker_wait_limit_us());
        wait_us = sooner(wait_us, card_head_teller()->wait_limit_us());
        if (own_card_roster() != nullptr)
            wait_us = sooner(wait_us, own_card_roster()->wait_limit_us());
        mts_message_t *message = nullptr;
        const bool came = mts_recv_within(handle, &message, wait_us) == 0;
        best_effort([] { module_locks()->tick(); });
        reap_workers();
        best_effort([] { card_transfers()->tick(); });
        best_effort([] { card_head_teller()->tick(); });
        best_effort([] {
            if (own_card_roster() != nullptr)
                own_card_roster()->tick();
        });
        if (came)
            serve(handle, message);
    }
}
