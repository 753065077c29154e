// The holder of a module lock, as agents and tools know it. The daemon's side is modlock.h.
#pragma once

#include <cstdint>
#include <string>

struct chassis_module_lock_holder {
    std::uint16_t node_id;
    std::uint32_t slot;   // of the holder
    std::uint32_t pid;    // as the holder sees itself
    std::uint32_t owner;  // id of the kind of owner
    std::uint32_t reason; // reason code of the request
    std::string since;    // UTC, "2026-01-31T23:59:59Z"

    // Of an operator; no process holds the lock then, and slot, pid and owner are 0.
    std::string user = {};
    std::string host = {};
    std::string until = {}; // UTC; when it ends by itself

    bool operator==(const chassis_module_lock_holder &) const = default;
};
