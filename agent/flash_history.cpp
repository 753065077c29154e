#include "flash_history.h"

#include "chassis_dir.h"
#include "flash_event_faults.h"
#include "flash_event_log.h"
#include "flash_geometry.h"

namespace
{

agent_log_fault fault_of(flash_line_fault fault)
{
    switch (fault) {
    case flash_line_fault::no_event:
        return AGENT_LOG_NO_EVENT;
    case flash_line_fault::other_flash:
        return AGENT_LOG_OTHER_FLASH;
    case flash_line_fault::twice:
        return AGENT_LOG_TWICE;
    case flash_line_fault::out_of_order:
        return AGENT_LOG_OUT_OF_ORDER;
    case flash_line_fault::unfinished:
        break;
    }
    return AGENT_LOG_UNFINISHED;
}

} // namespace

void prepare_event_logs()
{
    for (unsigned instance = 0; instance < FLASH_INSTANCE_COUNT; ++instance)
        flash_event_log_prepare(chassis_own_slot(), instance);
}

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

answer log_faults_answer(const agent_flash_req_t &request)
{
    const std::uint32_t instance = request.instance.load();
    if (instance >= FLASH_INSTANCE_COUNT)
        return AGENT_ERR_FLASH;
    const unsigned slot = chassis_own_slot();
    answer faults;
    for (const flash_line_finding &finding : flash_event_log_faults(slot, instance))
        faults.add(agent_log_fault_t{be32::of(fault_of(finding.fault)), be32::of(finding.in_older ? 1 : 0),
                                     be64::of(finding.lines), be64::of(finding.line), be64::of(finding.sequence)});
    if (const lost_events lost = flash_events_lost(slot, instance); lost.count != 0)
        faults.add(agent_log_fault_t{be32::of(lost.is_full ? AGENT_LOG_LOST_FULL : AGENT_LOG_LOST), be32::of(0),
                                     be64::of(lost.count), be64::of(0), be64::of(lost.after)});
    return faults;
}
