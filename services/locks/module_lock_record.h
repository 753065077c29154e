// Holders of module locks as lines of text: "NODE SLOT PID OWNER REASON SINCE", the node id and the reason in
// hexadecimal digits.
//
// Below the folder of a slot:
//   locks/NODE      a lock that a process of this card has; the card's agent keeps it, from when the lock is
//   granted until
//                   it has ended
//   locks/granted   what the agent of this card has granted, to processes of any card (granted_locks.h)
#pragma once

#include <optional>
#include <string>

#include "chassis_module_lock.h"

// The line, without a newline.
std::string module_lock_text(const chassis_module_lock_holder &holder);
// None when it is not such a line.
std::optional<chassis_module_lock_holder> parse_module_lock(const std::string &line);

// The record of a lock of this card. false with errno.
bool module_lock_record_write(const chassis_module_lock_holder &holder);
void module_lock_record_remove(std::uint16_t node_id);
std::optional<chassis_module_lock_holder> module_lock_record_read(std::uint16_t node_id);
