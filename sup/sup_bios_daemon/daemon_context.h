// What the daemon's process keeps from its start-up and from one pass of its loop to the next.
#pragma once

#include <cstdint>

#include "mts.h"

struct daemon_context {
    std::int32_t handle;               // the daemon's endpoint
    std::uint8_t my_module_num;        // own slot
    std::uint32_t lock_data;           // 1 while the programming locks are held
    std::int32_t child_pid;            // last forked programming child; 0 before the first
    std::int32_t child_status;         // wait status of the last reaped child
    std::int32_t sup_state;            // supervisor state at the last programming request
    std::uint32_t programming_mod_num; // module of the last accepted programming request
    mts_address_t requester_addr;      // who sent it
    void *payload;                     // payload of the last request that fetched one; null before the first
};
