#include "module_locks.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <set>

#include "chassis_dir.h"
#include "daemon_node.h"
#include "inventory_value.h"
#include "module_lock_file.h"
#include "module_lock_message.h"
#include "module_lock_record.h"
#include "monotonic_clock.h"
#include "mts_tools.h"
#include "operator_locks.h"

namespace
{

std::unique_ptr<lock_service> &own_service()
{
    static std::unique_ptr<lock_service> service;
    return service;
}

// Node of the module's card; 0 when the slot is empty or is none. A node id that is not the one of the module's
// daemon is locked there, too.
std::uint32_t node_of_module(std::uint16_t node_id)
{
    const std::uint32_t slot = module_of_node(node_id);
    if (slot == 0 || slot > PFM_MODULE_COUNT || inventory_value(slot, "kind") == 0)
        return 0;
    return mts_node_of_slot(slot);
}

// What processes of this card have: their bytes, with their records beside them.
std::vector<chassis_module_lock_holder> held_here(const module_lock_file &file)
{
    std::vector<chassis_module_lock_holder> held;
    std::set<std::uint16_t> node_ids;
    if (!file.find_others(node_ids))
        return held;
    for (const std::uint16_t node_id : node_ids) {
        if (const auto holder = module_lock_record_read(node_id); holder)
            held.push_back(*holder);
    }
    return held;
}

} // namespace

void start_module_locks(std::int32_t handle)
{
    static module_lock_file file;
    (void)file.open(); // without it nobody of this card can want a lock
    const lock_surroundings around = {
        .own_node = mts_node_of_slot(chassis_own_slot()),
        .first_id = static_cast<std::uint64_t>(microseconds_of(CLOCK_REALTIME)), // the card may have booted since
        .now_us = monotonic_us,
        .send =
            [handle](mts_address_t to, std::uint32_t opcode, const void *body, std::size_t bytes) {
                (void)mts_send(handle, to.node, to.sap, opcode, body, static_cast<std::uint32_t>(bytes), 0, 0, 0);
            },
        .has_agent = [](std::uint32_t node) { return mts_is_bound(node, AGENT_SAP); },
        .node_of_module = node_of_module,
        .is_wanted = [](std::uint16_t node_id) { return file.is_others(node_id); },
        .remember = [](const chassis_module_lock_holder &holder) { (void)module_lock_record_write(holder); },
        .forget = module_lock_record_remove,
        .is_held_off = is_locked_for_operator,
        .keep = [](const granted_locks &granted) { (void)store_granted_locks(granted); },
    };
    own_service() = std::make_unique<lock_service>(around, load_granted_locks(), held_here(file));
}

lock_service *module_locks()
{
    return own_service().get();
}

bool is_module_lock_served_here(std::uint16_t node_id)
{
    const std::uint32_t node = node_of_module(node_id);
    return node == 0 || node == mts_node_of_slot(chassis_own_slot()) || !mts_is_bound(node, AGENT_SAP);
}

answer locks_answer()
{
    std::vector<chassis_module_lock_holder> held = operator_locks();
    if (const lock_service *service = module_locks(); service != nullptr)
        std::ranges::copy(service->holders(), std::back_inserter(held));
    std::ranges::stable_sort(held, {}, &chassis_module_lock_holder::node_id);
    answer locks;
    for (const chassis_module_lock_holder &holder : held)
        locks.add(held_message_of(holder));
    return locks;
}
