// Who has which name in the cluster, as the kernel's topology service knows it.
#pragma once

#include <optional>
#include <span>
#include <vector>

#include "tipc_socket.h"

struct tipc_range {
    std::uint32_t type = 0;
    std::uint32_t lower = 0;
    std::uint32_t upper = 0;
};

// A name that a socket has.
struct tipc_publication {
    tipc_socket_id socket = {};
    std::uint32_t instance = 0;
};

// What is published at this moment in each of the ranges. None with errno when the service cannot be asked. In a
// forked child it is asked anew: nothing of the parent's connection is used.
std::optional<std::vector<std::vector<tipc_publication>>> find_publications(std::span<const tipc_range> ranges);

// Whether a card is reached at this moment. true also when that cannot be found out.
bool is_node_up(std::uint32_t node);
