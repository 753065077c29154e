#include "lock_holders.h"

#include <algorithm>

#include "agents.h"
#include "bios_results.h"
#include "daemon_node.h"
#include "result_text.h"

namespace
{

std::string reason_text(std::uint32_t reason)
{
    if (reason == BIOS_ERR_BUSY)
        return "for a programming";
    if (reason == BIOS_LOCK_FOR_PEER)
        return "on request of a peer";
    return "for reason " + code_text(reason);
}

bool is_programming(const chassis_module_lock_holder &holder)
{
    return !holder.since.empty() && holder.reason == BIOS_ERR_BUSY;
}

// Whether the lock is that of the programming supervisor's own module beside the lock of its target.
bool guards_programmer(const chassis_module_lock_holder &lock, std::span<const chassis_module_lock_holder> holders)
{
    return lock.slot == module_of_node(lock.node_id) &&
           std::ranges::any_of(holders, [&](const chassis_module_lock_holder &other) {
               return is_programming(other) && other.node_id != lock.node_id && other.slot == lock.slot &&
                      other.pid == lock.pid;
           });
}

} // namespace

std::optional<chassis_module_lock_holder> find_lock_holder(std::uint32_t node)
{
    const auto holders = ask_for_locks();
    if (!holders)
        return std::nullopt;
    const auto found =
        std::ranges::find(*holders, static_cast<std::uint16_t>(node), &chassis_module_lock_holder::node_id);
    return found != holders->end() ? std::optional(*found) : std::nullopt;
}

std::string holder_text(const chassis_module_lock_holder &holder)
{
    if (holder.since.empty())
        return "held by a process that has not told who it is yet";
    if (!holder.user.empty())
        return "held for " + holder.user + "@" + holder.host + " since " + holder.since + " until " + holder.until;
    const std::string who = holder.slot == 0 ? "a tool" : slot_text(holder.slot);
    return "held by " + who + ", process " + std::to_string(holder.pid) + ", since " + holder.since + ", " +
           reason_text(holder.reason);
}

bool programming_locks::has(std::uint32_t node) const
{
    return std::ranges::find(programmed, node) != programmed.end();
}

programming_locks programming_of(std::span<const chassis_module_lock_holder> holders)
{
    programming_locks locks;
    for (const chassis_module_lock_holder &holder : holders) {
        if (is_programming(holder) && !guards_programmer(holder, holders))
            locks.programmed.push_back(holder.node_id);
        // A record that is not written yet may become one of a programming.
        if (is_programming(holder) || holder.since.empty())
            locks.any = true;
    }
    return locks;
}

programming_locks find_programming()
{
    const auto holders = ask_for_locks();
    if (!holders)
        return {.readable = false};
    programming_locks programming = programming_of(*holders);
    for (const chassis_module &module : ask_for_modules().value_or(std::vector<chassis_module>{})) {
        const std::uint32_t node = daemon_node(module.slot, is_supervisor_kind(module.kind));
        const auto card = ask_for_card(node);
        if (!card ||
            std::ranges::none_of(card->flashes, [](const card_flash &flash) { return flash.activity.has_writer; }))
            continue;
        programming.any = true;
        if (!programming.has(node))
            programming.programmed.push_back(node);
    }
    return programming;
}
