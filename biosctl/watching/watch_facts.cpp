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

// What the programmed card knows of its last result: what a 0 means, which is that of a killed process as well, and
// when the work on the flash has ended. Neither changes any more once it was told.
void ask_the_card(unsigned module, noticed_result &result)
{
    static std::map<unsigned, told_outcome> known;
    told_outcome &outcome = known[module];
    if (outcome.time != result.time || outcome.outcome == AGENT_OUTCOME_NONE)
        outcome = ask_for_outcome(node_of_module(module)).value_or(told_outcome{});
    if (outcome.time != result.time)
        return;
    result.outcome = outcome.outcome;
    if (!outcome.ended.empty())
        result.time = outcome.ended;
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
    card.is_silent = told->is_silent;
    for (const card_flash &flash : told->flashes) {
        card.flashes[flash.instance] = flash.activity;
        card.is_spare[flash.instance] = flash.is_spare;
    }
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
        facts.results[told.module] = {told.code, told.time, told.reported_by_slot, AGENT_OUTCOME_NONE};
    const auto locks = ask_for_locks();
    facts.locks = locks.value_or(std::vector<chassis_module_lock_holder>{});
    facts.locks_readable = locks.has_value();
    for (const unsigned slot : modules.empty() ? modules_of_chassis() : modules)
        facts.cards.push_back(look_at(slot));
    for (const watched_card &card : facts.cards) {
        if (const auto result = facts.results.find(card.slot); card.confirmed && result != facts.results.end())
            ask_the_card(card.slot, result->second);
    }
    return facts;
}
