// The lock file of a card, slots/SLOT/locks/modules: one byte per node id. A record lock of the system on a byte
// says that a process of the card has the module's lock, or is about to get it. The byte is the process's for as
// long as it lives, however it ends; a forked child does not inherit it.
//
// Closing any descriptor of the file gives all bytes of a process back. So a process has one, and keeps it.
#pragma once

#include <cstdint>
#include <set>

#include "unique_fd.h"

constexpr const char *MODULE_LOCK_FOLDER = "locks"; // of a slot
constexpr const char *MODULE_LOCK_FILE = "locks/modules";

class module_lock_file
{
public:
    // Opens the file of this process's card, and makes it when it is not there. false with errno.
    bool open();
    bool is_open() const { return static_cast<bool>(file_); }

    // 0, or -1 with errno: EBUSY when another process has the byte.
    int take(std::uint16_t node_id) const;
    int give_back(std::uint16_t node_id) const;

    // Whether another process has the byte; a process is not told about its own. false when that cannot be found
    // out.
    bool is_others(std::uint16_t node_id) const;
    // All bytes of other processes. false with errno.
    bool find_others(std::set<std::uint16_t> &held_out) const;

private:
    unique_fd file_;
};
