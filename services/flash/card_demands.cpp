#include "card_demands.h"

#include "bios_header.h"
#include "chassis_dir.h"
#include "flash_order.h"
#include "security_floor.h"

bool read_card_demands(flash_facts &facts_out)
{
    const unsigned slot = chassis_own_slot();
    std::string problem;
    facts_out.card_id = chassis_read_value(chassis_inventory_path(slot, "card_id"), 0) & 0xffff;
    facts_out.family = chassis_read_value(chassis_slot_path(slot, FLASH_ORDERS_FAMILY), 0);
    return card_policy_load(facts_out.policy, problem) && security_floor_load(facts_out.security_floor, problem);
}

std::string version_in_flash(flash_device &flash)
{
    std::uint8_t header[BIOS_HEADER_BYTES];
    if (flash.is_marked() || !flash.read(0, header, sizeof header))
        return {};
    return bios_version_in(header);
}
