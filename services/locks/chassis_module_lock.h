// Who holds module locks, for tools and tests. The daemon's side is modlock.h.
//
// Below the chassis directory:
//   locks/modules   one byte per node id; a record lock of the system on the byte is the module lock
//   locks/NODE      the holder in words, node id as 4 hexadecimal digits: "SLOT PID OWNER REASON SINCE". It tells
//   who
//                   holds a lock and never whether one is held: a holder that was killed leaves it behind
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct chassis_module_lock_holder {
    std::uint16_t node_id;
    std::uint32_t slot;   // of the holder; 0 for a tool
    std::uint32_t pid;    // as the holder sees itself
    std::uint32_t owner;  // id of the kind of owner
    std::uint32_t reason; // reason code of the request
    std::string since; // UTC, "2026-01-31T23:59:59Z"; empty, and the numbers 0, while the holder writes its record
};

// The locks held now, this process's own included, in node id order.
//   error_out  0, or the errno of what failed; then the result is empty
std::vector<chassis_module_lock_holder> chassis_module_lock_holders(int &error_out);
