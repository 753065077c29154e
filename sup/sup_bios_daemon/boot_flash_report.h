// The report which flash the card booted from, and how a message of the catalogue is sent.
#pragma once

#include <cstdint>

#include "bios_daemon_syslog.h"

extern "C" {

// 0: no boot failure, always.
std::int32_t bios_check_boot_failure();

} // extern "C"

// Sends a message of the catalogue to syslog, when its facility's current level lets it pass.
void raise_syslog_message(const syslog_message_t &message);
