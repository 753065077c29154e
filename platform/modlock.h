// Module lock: one holder at a time per module node id, across all cards of the chassis.
//
// A lock belongs to the process that took it and is freed when that process ends, when its card or the module's is
// gone, or when these cards have not reached each other for some seconds; a forked child does not inherit it. A
// process that holds a lock is granted it again, and one unlock frees it. A module that nobody else can answer for,
// because its slot is empty, is locked against the processes of the own card only.
#ifndef PLATFORM_MODLOCK_H
#define PLATFORM_MODLOCK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { MODLOCK_REQUEST_WORDS = 4 };

// Prepares the client of this process; called once. 0, or not 0 with errno.
int32_t modlock_init(void);

// Takes the lock of a node id; does not wait for its holder. Ends within a second, also when no card answers.
//   owner    id of the kind of owner, 129 for the daemon; kept for those who ask who holds the lock
//   node_id  16 bits used
//   request  four words: 1, 0, 0 and the reason code
// When the lock cannot be had and the reason code is 0x4071000a, that of a programming, the other locks that the
// process has taken with this reason are freed: a programming without all of its locks does not take place. 0, or
// not 0 with errno: EBUSY when another process holds it, EHOSTUNREACH when the module's card does not answer, or
// that of the system call that failed.
int32_t modlock_module_lock(uint32_t owner, uint32_t node_id, const uint32_t request[4]);

// Frees the lock of a node id.
// 0, or not 0 with errno: EPERM when another process holds it, ENOENT when nobody does, as far as was known within
// the last second, or when the lock has ended before. Ends within a second.
int32_t modlock_module_unlock(uint32_t owner, uint32_t node_id);

#ifdef __cplusplus
}
#endif
#endif
