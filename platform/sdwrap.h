// Debug, history and syslog wrapper.
#ifndef PLATFORM_SDWRAP_H
#define PLATFORM_SDWRAP_H

#include "mts.h"

#ifdef __cplusplus
extern "C" {
#endif

// A syslog facility. The service may change current_level while the daemon runs.
typedef struct syslog_facility {
    const char *name;
    uint32_t number;
    uint8_t first_level;   // current_level at the start of the process
    uint8_t current_level; // a message is sent only when this is at least its severity
} syslog_facility_t;

// Facility under which this process logs; set by the daemon before sdwrap_sys_init_helper.
extern syslog_facility_t *sdwrap_sys_facility;

// Registers the debug module of this process.
//   handle      transport endpoint that debug messages come to
//   name        short name, title: long name
//   count       number of debug categories, names: their names; must stay valid
//   the last three arguments are 0
// 0, or not 0 with errno.
int32_t sdwrap_dbg_init(int32_t handle, const char *name, const char *title, uint32_t count,
                        const char *const *names, uint32_t reserved_1, uint32_t reserved_2, uint32_t reserved_3);

// Registers the syslog facility of this process under its number. 0, or not 0 with errno.
int32_t sdwrap_sys_init_helper(int32_t handle, const char *name, const char *title, uint32_t facility_number,
                               uint32_t reserved_1, uint32_t reserved_2, uint32_t reserved_3);

// Offers a received message to the debug framework. 1 when the message is not one of the framework's own and
// the daemon is to serve it; any other value when the framework has consumed it (it still has to be dropped).
// A platform may also answer and consume a request that the card must not serve now: one that would put another
// image into a flash than the one asked for, or begin a programming while a child of an earlier one lives, also of
// a daemon that has ended (MTS_OPC_BIOS_PROGRAMMING_START, MTS_OPC_BIOS_GET_SRC_BIOS_VERSION), or that would remove
// a file that is none of the daemon's (MTS_OPC_BIOS_INSTALL_LOADER).
int32_t sdwrap_process_msg(int32_t handle, mts_message_t *message);

// Tells whether history events of a subtype are recorded. 0 when they are.
int32_t sdwrap_hist_event_subtype_check(uint32_t event_type, uint32_t subtype);

// Records a history event.
//   length  bytes of text, without terminator
//   text    NUL-terminated; copied, at least 255 characters of it
// 0, or not 0 with errno; the daemon does not look at it.
int32_t sdwrap_hist_event(uint32_t event_type, uint32_t length, const char *text);

// Tells whether a debug category is switched on. Not 0 when it is.
int32_t sdwrap_chk_int(uint32_t category, uint32_t reserved_1, uint32_t reserved_2, uint32_t reserved_3);

// Prints one debug message; printf format. At least 255 characters of it are printed.
#ifdef __GNUC__
__attribute__((format(printf, 1, 2)))
#endif
void buginf(const char *format, ...);

// Sends a syslog message.
//   severity  0 (emergency) to 7 (debugging)
//   format    printf format that takes a text and a number: "%%" gives the percent sign, "%s" facility_name, "%d"
//             message_severity
//   facility_name     of the facility, which the daemon gives in upper case
//   message_severity  severity again
void vesk_syslog(uint32_t severity, const char *format, const char *facility_name, uint32_t message_severity);

#ifdef __cplusplus
}
#endif
#endif
