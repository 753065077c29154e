// The record of a module lock's holder: a line of text beside the lock.
#pragma once

#include "chassis_module_lock.h"

// Writes the record of a lock that this process has just taken. false with errno.
bool module_lock_record_write(std::uint16_t node_id, std::uint32_t owner, std::uint32_t reason);

// Removes it. REQUIRES the lock: without it the record may be its next holder's.
void module_lock_record_remove(std::uint16_t node_id);

// Reads it. Only node_id is set when there is none or it is not complete.
chassis_module_lock_holder module_lock_record_read(std::uint16_t node_id);
