// Nodes of the daemons: which node serves a module, and whose node it is.
#pragma once

#include <cstdint>

#include "pfm.h"

// Whether a module's kind is one of the two of supervisors.
constexpr bool is_supervisor_kind(std::uint32_t kind)
{
    return kind == PFM_KIND_SUPERVISOR || kind == PFM_KIND_SUPERVISOR_ALTERNATE;
}

// Node of a module's daemon, 16 bits: module * 256 + 1 on a supervisor, + 2 on any other card.
constexpr std::uint32_t daemon_node(std::uint32_t module, bool supervisor)
{
    return (module * 256 + (supervisor ? 1U : 2U)) & 0xffff;
}

// The module that a daemon's node belongs to.
constexpr std::uint32_t module_of_node(std::uint32_t node)
{
    return node / 256;
}
