// System manager: supervisor state, kind of restart, files of the standby supervisor.
#ifndef PLATFORM_SYSMGR_H
#define PLATFORM_SYSMGR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    SYSMGR_SUP_STATE_ACTIVE = 1,
    SYSMGR_SUP_STATE_STANDBY = 2,
};

// State of this supervisor as it is now: SYSMGR_SUP_STATE_ACTIVE or any other value for one that is not active.
int32_t sysmgr_cli_supstate_get(int32_t handle);

// Not 0 when the card, and so its BIOS, went on running while this process was started anew: after an in-service
// upgrade of the software, and after a plain restart of the daemon, which has ended or was killed. 0 for the first
// start after the card has booted.
// The daemon asks once at its start, and only when it finds the record of the running version that it writes before
// a programming. Not 0: that version still runs. 0: the card has booted since, the record is removed, and what the
// flash holds now is what runs. With 0 after a plain restart, an image that was programmed but not booted yet would
// be reported as running.
int32_t sysmgr_is_upgrade_restart(void);

// Copies a file to the standby supervisor, in the place of one that is there, and waits until it is done.
//   kind         129
//   source       absolute path on this card
//   destination  absolute path on the standby supervisor
//   flags        1
// 0 also when there is no standby supervisor; -1 with errno when the copy failed. What was at the destination
// before must not stay there then: the standby supervisor would program it. An empty file may.
int32_t sysmgr_cli_gsync_file(int32_t handle, uint32_t kind, const char *source, const char *destination,
                              uint32_t flags);

#ifdef __cplusplus
}
#endif
#endif
