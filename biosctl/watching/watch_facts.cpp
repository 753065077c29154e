#include "watch_facts.h"

#include "agents.h"
#include "client.h"
#include "inventory.h"
#include "utc_time.h"

namespace
{

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
    const auto told = ask_for_card(node_of_module(slot));
    if (!told) {
        card.confirmed = false;
        card.serves = daemon_serves(node_of_module(slot));
        return card;
    }
    card.serves = told->serves;
    for (const card_flash &flash : told->flashes)
        card.flashes[flash.instance] = flash.activity;
    return card;
}

} // namespace

watch_facts read_watch_facts(const std::vector<unsigned> &modules)
{
    watch_facts facts;
    facts.now = utc_now();
    const auto results = ask_for_results();
    facts.results_readable = results.has_value();
    for (const told_result &told : results.value_or(std::vector<told_result>{}))
        facts.results[told.module] = {told.code, told.time, told.reported_by_slot};
    const auto locks = ask_for_locks();
    facts.locks = locks.value_or(std::vector<chassis_module_lock_holder>{});
    facts.locks_readable = locks.has_value();
    for (const unsigned slot : modules.empty() ? modules_of_chassis() : modules)
        facts.cards.push_back(look_at(slot));
    return facts;
}
