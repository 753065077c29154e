#include "mts_tools.h"

#include "c_boundary.h"
#include "chassis_dir.h"
#include "daemon_node.h"
#include "mts_endpoint.h"

namespace
{

constexpr std::uint32_t TOOLS_NODE = 1;

std::uint32_t node_of_slot(std::uint32_t slot)
{
    if (slot == 0)
        return TOOLS_NODE;
    const std::uint32_t kind = chassis_read_value(chassis_inventory_path(slot, "kind"), 0);
    return daemon_node(slot, is_supervisor_kind(kind));
}

} // namespace

std::int32_t mts_listen(std::int32_t handle, std::uint32_t opcode)
{
    mts_endpoint *endpoint = mts_endpoint_of(handle);
    if (endpoint == nullptr)
        return -1;
    return c_boundary([&] { return card_datagram_driver->listen(endpoint->port, opcode) ? 0 : -1; });
}

void mts_unbind(std::int32_t handle)
{
    (void)c_boundary([&] {
        mts_endpoint_unbind(handle);
        return 0;
    });
}

std::uint32_t mts_payload_length(const mts_message_t *message)
{
    return message->header.payload_bytes;
}

std::int32_t mts_own_address(std::int32_t handle, mts_address_t *address_out)
{
    const mts_endpoint *endpoint = mts_endpoint_of(handle);
    if (endpoint == nullptr)
        return -1;
    *address_out = endpoint->address();
    return 0;
}

std::int32_t mts_descriptor(std::int32_t handle)
{
    const mts_endpoint *endpoint = mts_endpoint_of(handle);
    return endpoint != nullptr ? card_datagram_driver->descriptor(endpoint->port) : -1;
}

std::uint32_t mts_node_of_slot(std::uint32_t slot)
{
    return c_boundary(0, [&] { return node_of_slot(slot); });
}

bool mts_is_bound(std::uint32_t node, std::uint32_t sap)
{
    return c_boundary(false, [&] { return card_datagram_driver->is_bound({node, sap}, nullptr); });
}

std::optional<datagram_peer> mts_peer_at(std::uint32_t node, std::uint32_t sap)
{
    datagram_peer peer;
    return card_datagram_driver->is_bound({node, sap}, &peer) ? std::optional(peer) : std::nullopt;
}

std::vector<std::uint32_t> mts_nodes_with(std::uint32_t sap)
{
    return card_datagram_driver->nodes_with(sap);
}
