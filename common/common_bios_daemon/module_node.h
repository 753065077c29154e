// Where another module's daemon is, and what it is asked with.
#pragma once

#include <cstdint>

// Node id of the daemon of a module: module * 256 + 1 on a supervisor, + 2 on any other card, cut to 16 bits.
// 0 when the module table cannot be read or the number is no module's (1..232).
extern "C" std::uint32_t get_nodeid_for_module(std::int32_t handle, std::uint32_t module);

constexpr const char *MODULE_REQUEST_TAG = "ABCD"; // both tags of a request, and the body of one that has none
constexpr std::uint32_t MODULE_REQUEST_WAIT_LIMIT = 1800;
