#include "card_roster.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

#include "chassis_dir.h"
#include "daemon_node.h"
#include "inventory_value.h"
#include "monotonic_clock.h"
#include "mts_tools.h"
#include "sysmgr.h"

namespace
{

constexpr const char *STATE_FILE = "sup_state";

agent_module_t own_card()
{
    const unsigned slot = chassis_own_slot();
    return {be32::of(slot), be32::of(inventory_value(slot, "kind")), be32::of(inventory_value(slot, "card_id")),
            be32::of(inventory_value(slot, STATE_FILE))};
}

// Only what differs: whoever watches the inventory is not woken up for nothing.
void put(unsigned slot, const char *name, std::uint32_t value)
{
    if (inventory_has(slot, name) && inventory_value(slot, name) == value)
        return;
    (void)chassis_write_value(chassis_inventory_path(slot, name), value); // the next time then
}

void put_card(const agent_module_t &card)
{
    const unsigned slot = card.slot.load();
    const std::string folder = "inventory/" + std::to_string(slot);
    if (::mkdirat(chassis_dir_fd(), folder.c_str(), 0755) != 0 && errno != EEXIST)
        return;
    put(slot, "card_id", card.card_id.load());
    put(slot, STATE_FILE, card.sup_state.load());
    put(slot, "kind", card.kind.load()); // at last: a card without a kind is none
}

bool is_supervisor(const agent_module_t &card)
{
    return is_supervisor_kind(card.kind.load());
}

std::unique_ptr<card_roster> &own_roster()
{
    static std::unique_ptr<card_roster> roster;
    return roster;
}

} // namespace

void card_roster::take(mts_address_t from, const void *body, std::size_t bytes)
{
    agent_module_t told;
    if (bytes != sizeof told)
        return;
    std::memcpy(&told, body, sizeof told);
    const std::uint32_t slot = told.slot.load();
    if (slot == 0 || slot > PFM_MODULE_COUNT || slot == chassis_own_slot() || told.kind.load() == 0 ||
        told.kind.load() > UINT8_MAX || told.card_id.load() > UINT16_MAX || from.sap != AGENT_SAP ||
        from.node != daemon_node(slot, is_supervisor(told)))
        return;
    cards_[slot] = {told, now_us_(), true};
    put_card(told);
}

void card_roster::leave_silent_cards(std::int64_t now)
{
    for (auto &[slot, card] : cards_) {
        if (!card.is_there || now - card.heard_us < ROSTER_SILENCE_US)
            continue;
        card.is_there = false;
        put(slot, STATE_FILE, 0);
    }
}

bool card_roster::hears_active_supervisor(bool below_own_slot) const
{
    return std::ranges::any_of(cards_, [below_own_slot](const auto &each) {
        return each.second.is_there && is_supervisor(each.second.told) &&
               each.second.told.sup_state.load() == SYSMGR_SUP_STATE_ACTIVE &&
               (!below_own_slot || each.first < chassis_own_slot());
    });
}

bool card_roster::is_lowest_supervisor() const
{
    return std::ranges::none_of(cards_, [](const auto &each) {
        return each.second.is_there && is_supervisor(each.second.told) && each.first < chassis_own_slot();
    });
}

// A supervisor that has just started first listens whether there is an active one.
void card_roster::follow_rule(std::int64_t now)
{
    const unsigned own = chassis_own_slot();
    if (!is_supervisor_kind(inventory_value(own, "kind")))
        return;
    const bool was_active = inventory_value(own, STATE_FILE) == SYSMGR_SUP_STATE_ACTIVE;
    bool is_active = was_active && !hears_active_supervisor(true);
    if (!was_active && now - begun_us_ >= ROSTER_SILENCE_US)
        is_active = !hears_active_supervisor(false) && is_lowest_supervisor();
    put(own, STATE_FILE, is_active ? SYSMGR_SUP_STATE_ACTIVE : SYSMGR_SUP_STATE_STANDBY);
}

void card_roster::tick()
{
    const std::int64_t now = now_us_();
    if (now < next_us_)
        return;
    next_us_ = now + ROSTER_TELL_US;
    leave_silent_cards(now);
    if (rule_ == redundancy_rule::of_the_agents)
        follow_rule(now);
    tell_(own_card());
}

std::int64_t card_roster::wait_limit_us() const
{
    return std::max<std::int64_t>(next_us_ - now_us_(), 0);
}

void start_card_roster(std::int32_t handle)
{
    struct stat state;
    const std::string path = chassis_inventory_path(chassis_own_slot(), STATE_FILE);
    const bool is_link =
        ::fstatat(chassis_dir_fd(), path.c_str(), &state, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(state.st_mode);
    own_roster() = std::make_unique<card_roster>(
        is_link ? redundancy_rule::of_the_system : redundancy_rule::of_the_agents,
        [handle](const agent_module_t &own) {
            const std::uint32_t own_node = mts_node_of_slot(own.slot.load());
            for (const std::uint32_t node : mts_nodes_with(AGENT_SAP)) {
                if (node != own_node)
                    (void)mts_send(handle, node, AGENT_SAP, AGENT_OPC_CARD_IS_THERE, &own, sizeof own, 0, 0, 0);
            }
        },
        monotonic_us);
}

card_roster *own_card_roster()
{
    return own_roster().get();
}
