// Bodies and payloads of the daemon's messages, in opcode order. A request's body begins 112 bytes into the
// message's payload (MTS_REQUEST_HEADER_BYTES).
#pragma once

#include <cstddef>
#include <cstdint>

#include "big_endian.h"

// MTS_OPC_BIOS_MODULE_LOCK, request body.
enum bios_module_lock_operation : std::uint32_t {
    BIOS_MODULE_LOCK_TAKE = 2,
    BIOS_MODULE_LOCK_RELEASE = 3, // any other operation does nothing
};

struct bios_module_lock_req_t {
    be32 operation;
    be32 node_id; // low 16 bits used
};
static_assert(sizeof(bios_module_lock_req_t) == 8);

// MTS_OPC_BIOS_MODULE_LOCK, answer.
struct bios_module_lock_reply_t {
    be32 operation; // as received
    be32 node_id;   // as received
    be32 result;    // 0, or 0x80000000 | (errno & 0xfff)
};
static_assert(sizeof(bios_module_lock_reply_t) == 12);

// MTS_OPC_BIOS_PROGRAMMING_START, request body; also forwarded to the target module as it stands.
struct bios_programming_req_t {
    be32 programming_mod_num; // module to program, 1-based slot number
    be32 def;                 // not 0: no image is named, the image tree is used
    std::uint8_t reserved[4];
    char uri[228];        // image URI, NUL-terminated
    char local_path[288]; // receives the path that the URI maps to
    std::uint8_t type;    // flash instance to program
};
static_assert(sizeof(bios_programming_req_t) == 529);
static_assert(offsetof(bios_programming_req_t, def) == 4);
static_assert(offsetof(bios_programming_req_t, uri) == 12);
static_assert(offsetof(bios_programming_req_t, local_path) == 240);
static_assert(offsetof(bios_programming_req_t, type) == 528);

// MTS_OPC_BIOS_PROGRAMMING_START, answer; the result travels as the answer's status.
struct bios_programming_reply_t {
    be32 reserved;
};
static_assert(sizeof(bios_programming_reply_t) == 4);

// MTS_OPC_BIOS_PROGRAMMING_NOTIFY, sent to whoever listens.
struct bios_programming_notify_t {
    be32 result;
    be32 programming_mod_num;
};
static_assert(sizeof(bios_programming_notify_t) == 8);

// MTS_OPC_BIOS_PROGRAMMING_DONE, sent to the requester.
struct bios_programming_done_t {
    be32 result;
};
static_assert(sizeof(bios_programming_done_t) == 4);

// MTS_OPC_BIOS_PROGRAMMING_PROGRESS: one programming goes from 0 to 100 and never back; 100 is sent only after
// the whole flash was read back and equals the image.
enum bios_programming_phase : std::uint32_t {
    BIOS_PHASE_ERASE = 1,
    BIOS_PHASE_WRITE = 2,
    BIOS_PHASE_VERIFY = 3,
};

struct bios_programming_progress_t {
    be32 phase;
    be32 percent; // 0..100 over all phases
    be32 attempt; // 1-based
};
static_assert(sizeof(bios_programming_progress_t) == 12);
