#include "flash_history.h"

#include "chassis_dir.h"
#include "flash_event_log.h"
#include "flash_geometry.h"

answer events_answer(const agent_events_req_t &request)
{
    const std::uint32_t instance = request.instance.load();
    if (instance >= FLASH_INSTANCE_COUNT)
        return AGENT_ERR_FLASH;
    const std::uint64_t after = request.after_sequence.load();
    answer events;
    for (const flash_event &event : flash_event_history_of(chassis_own_slot(), instance).events) {
        if (event.sequence > after)
            events.add_text(flash_event_format(event));
    }
    return events;
}

answer totals_answer(const agent_flash_req_t &request)
{
    const std::uint32_t instance = request.instance.load();
    if (instance >= FLASH_INSTANCE_COUNT)
        return AGENT_ERR_FLASH;
    answer totals;
    totals.add_text(flash_event_totals_format(flash_event_history_of(chassis_own_slot(), instance).totals));
    return totals;
}
