// The daemon's syslog catalogue, under the names that platform libraries and debuggers know. A message is sent by
// vesk_syslog(severity, format, NAME OF THE FACILITY, severity), when the facility's current level lets it pass.
#pragma once

#include <cstdint>

#include "sdwrap.h"

extern "C" {

// A message of the catalogue; plain form.
struct syslog_message_t {
    const char *name;
    syslog_facility_t *facility;
    const char *format;
    std::uint32_t severity;
};

// A message of the catalogue; module form.
struct syslog_module_message_t {
    const char *name;
    syslog_facility_t *facility;
    const char *format;
    const char *kind; // "LC"
    std::uint32_t severity;
};

static_assert(sizeof(void *) != 4 || (sizeof(syslog_facility_t) == 12 && sizeof(syslog_message_t) == 16 &&
                                      sizeof(syslog_module_message_t) == 20),
              "layout of the 32-bit target");

extern syslog_facility_t syslog_fac_LOG_BIOS_DAEMON;
extern const syslog_module_message_t syslog_msg_BIOS_DAEMON_LC_ERROR;
extern const syslog_message_t syslog_msg_BIOS_DAEMON_SUP_ERROR;
extern const syslog_message_t syslog_msg_BIOS_DAEMON_FLASH_WARNING;
extern const syslog_module_message_t syslog_msg_BIOS_DAEMON_LC_PRI_BOOT_FAIL;
extern const syslog_module_message_t syslog_msg_BIOS_DAEMON_LC_PRI_BOOT;
extern const syslog_message_t syslog_msg_BIOS_DAEMON_PRI_BOOT_FAIL;
extern const syslog_message_t syslog_msg_BIOS_DAEMON_PRI_BOOT;

} // extern "C"
