// Module lock: one holder at a time per module node id, across all cards of the chassis.
//
// A lock belongs to the process that took it and is freed when that process ends; a forked child does not
// inherit it. A process that holds a lock is granted it again, and one unlock frees it.
#ifndef PLATFORM_MODLOCK_H
#define PLATFORM_MODLOCK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { MODLOCK_REQUEST_WORDS = 4 };

// Prepares the client of this process; called once. 0, or not 0 with errno.
int32_t modlock_init(void);

// Takes the lock of a node id; does not wait.
//   owner    id of the kind of owner, 129 for the daemon; kept for those who ask who holds the lock
//   node_id  16 bits used
//   request  four words: 1, 0, 0 and the reason code
// 0, or not 0 with errno: EBUSY when another process holds it, or that of the system call that failed.
int32_t modlock_module_lock(uint32_t owner, uint32_t node_id, const uint32_t request[4]);

// Frees the lock of a node id.
// 0, or not 0 with errno: EPERM when another process holds it, ENOENT when nobody does.
int32_t modlock_module_unlock(uint32_t owner, uint32_t node_id);

#ifdef __cplusplus
}
#endif
#endif
