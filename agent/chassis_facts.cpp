#include "chassis_facts.h"

#include <array>

#include "chassis_dir.h"
#include "inventory_value.h"
#include "pfm.h"

answer chassis_answer()
{
    std::array<pfm_module_record_t, PFM_MODULE_COUNT> records;
    if (pfm_get_all_modules_in_chassis(0, records.data(), PFM_MODULE_COUNT) < 0)
        return AGENT_ERR_UNREADABLE;
    answer modules;
    std::uint32_t count = 0;
    for (const pfm_module_record_t &record : records)
        count += record.kind != 0 || record.card_id != 0 ? 1 : 0;
    modules.add(agent_chassis_t{be32::of(chassis_own_slot()), be32::of(count)});
    for (unsigned slot = 1; slot <= PFM_MODULE_COUNT; ++slot) {
        const pfm_module_record_t &record = records[slot - 1];
        if (record.kind != 0 || record.card_id != 0)
            modules.add(agent_module_t{be32::of(slot), be32::of(record.kind), be32::of(record.card_id),
                                       be32::of(inventory_value(slot, "sup_state"))});
    }
    return modules;
}
