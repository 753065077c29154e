#include "watch_facts.h"

#include <cstddef>
#include <cstring>

#include "bios_messages.h"
#include "bios_opcodes.h"
#include "mts_tools.h"
#include "daemon_node.h"
#include "inventory.h"
#include "pfm.h"
#include "utc_time.h"

namespace
{

constexpr std::size_t SECONDS_TEXT_BYTES = 19; // "2026-01-31T23:59:59"

std::string role_of(unsigned slot)
{
    if (slot_is_active(slot))
        return "active";
    return slot_is_standby(slot) ? "standby" : "none";
}

watched_card look_at(unsigned slot)
{
    watched_card card;
    card.slot = slot;
    card.role = role_of(slot);
    card.serves = mts_is_bound(node_of_module(slot), BIOS_DAEMON_SAP);
    for (unsigned instance = 0; instance < FLASH_INSTANCE_COUNT; ++instance)
        card.flashes[instance] = flash_activity_of(slot, instance);
    return card;
}

} // namespace

void take_result(results_by_module &results, const kept_notice &notice)
{
    bios_programming_notify_t told{};
    if (notice.opcode != MTS_OPC_BIOS_PROGRAMMING_NOTIFY || notice.source.sap != BIOS_DAEMON_SAP ||
        notice.payload.size() < sizeof told)
        return;
    std::memcpy(&told, notice.payload.data(), sizeof told);
    const unsigned module = told.programming_mod_num.load();
    if (module == 0 || module > PFM_MODULE_COUNT)
        return;
    results[module] = {told.result.load(), notice.time.substr(0, SECONDS_TEXT_BYTES) + "Z",
                       module_of_node(notice.source.node)};
}

watch_facts watch_reader::read()
{
    watch_facts facts;
    facts.now = utc_now();
    for (const kept_notice &notice : notices_.take())
        take_result(results_, notice);
    facts.results = results_;
    int error = 0;
    facts.locks = chassis_module_lock_holders(error);
    facts.locks_readable = error == 0;
    for (const unsigned slot : modules_.empty() ? modules_of_chassis() : modules_)
        facts.cards.push_back(look_at(slot));
    return facts;
}
