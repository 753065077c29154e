#include "lock_holders.h"

#include <algorithm>

#include "bios_results.h"
#include "result_text.h"

namespace
{

std::string reason_text(std::uint32_t reason)
{
    if (reason == BIOS_ERR_BUSY)
        return "for a programming";
    if (reason == BIOS_LOCK_FOR_PEER)
        return "on request of a peer or an operator";
    return "for reason " + code_text(reason);
}

} // namespace

std::optional<chassis_module_lock_holder> find_lock_holder(std::uint32_t node)
{
    int error = 0;
    const auto holders = chassis_module_lock_holders(error);
    const auto found =
        std::ranges::find(holders, static_cast<std::uint16_t>(node), &chassis_module_lock_holder::node_id);
    return found != holders.end() ? std::optional(*found) : std::nullopt;
}

std::string holder_text(const chassis_module_lock_holder &holder)
{
    if (holder.since.empty())
        return "held by a process that has not told who it is yet";
    const std::string who = holder.slot == 0 ? "a tool" : "slot " + std::to_string(holder.slot);
    return "held by " + who + ", process " + std::to_string(holder.pid) + ", since " + holder.since + ", " +
           reason_text(holder.reason);
}
