// Message transport: endpoints, received messages, unsolicited messages and rejections.
//
// An endpoint is addressed by a node word and a service-access-point (sap) word. The node of the daemon of
// module m is m * 256 + 1 on a supervisor and m * 256 + 2 on any other card. A handle belongs to the process
// that bound it: a forked child binds an endpoint of its own and does not use its parent's. By the end of that
// mts_bind the child has closed what it inherited of its parent's endpoints, and every descriptor of the service
// is close-on-exec: neither a child nor a command that outlives the parent may keep the parent's address.
// Requests and their answers are in cmi.h.
#ifndef PLATFORM_MTS_H
#define PLATFORM_MTS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// A received message. Owned by the transport; it stays valid until mts_drop.
typedef struct mts_message mts_message_t;

// Source or destination of a message, both words in host order.
typedef struct mts_address {
    uint32_t node;
    uint32_t sap;
} mts_address_t;

enum {
    MTS_BIND_OPTION_WORDS = 6,
    MTS_RECV_OPTION_WORDS = 10,
    MTS_RECV_OPTION_MODE = 0,               // word of mts_recv's options that is 1
    MTS_RECV_OPTION_WAIT_S = 2,             // word of mts_recv's options that holds the wait limit, seconds
    MTS_REQUEST_HEADER_BYTES = 112,         // platform header in front of every request body
    MTS_READABLE_PAYLOAD_BYTES = 112 + 529, // every received payload is readable, zero beyond its end, up to here
};

// Largest payload that the transport carries, bytes: a file of 64 MiB, and a page for the words before it.
#define MTS_MAX_PAYLOAD_BYTES ((64u << 20) + 4096u)

// Node that stands for "whoever listens for the opcode of the message"; the sap is not looked at.
#define MTS_NODE_LISTENERS 0xfe000000u

// Errors of mts_recv and of the calls of cmi.h that wait.
enum {
    MTS_ERRNO_TIMED_OUT = 62,  // the wait limit passed
    MTS_ERRNO_INTERRUPTED = 4, // a signal ended the wait
};

// Binds an endpoint, which lives as long as its process.
//   kind     1
//   sap      service access point, or -1 for one of the transport's choice that nobody has
//   options  six words, passed as the platform's transport documents them: 1, 0, 1024, 0, 0, 15
//   name     text for diagnostics; copied
// The handle (not negative), or -1 with errno: EADDRINUSE when a living endpoint has the sap, or that of the
// system call that failed.
int32_t mts_bind(uint32_t kind, int32_t sap, const uint32_t options[6], const char *name);

// A card's endpoint that has had an MTS_OPC_BIOS_PROGRAMMING_START request answered with status 0 (cmi.h) awaits
// one MTS_OPC_BIOS_PROGRAMMING_DONE. The transport makes that message itself, and delivers it by mts_recv, when the
// process that took the request is gone with its card or without, or when for 30 seconds neither progress has come
// nor the agent of that card has seen a process write the flash. Its result is the one that the agent knows of this
// very programming, else 0x40710008; its sender is the one that did not send it. A message that has come is
// delivered first, and no second one is made.
//
// A request whose sender's wait has passed before it is received, or whose sender is gone, is not delivered; in the
// first case it is rejected.

// Waits for the next message of an endpoint, at most options[MTS_RECV_OPTION_WAIT_S] seconds.
//   message_out  set on success only; the caller gives it back with mts_drop
// 0, or not 0 with errno MTS_ERRNO_TIMED_OUT, MTS_ERRNO_INTERRUPTED, or that of the system call that failed.
// The daemon calls again at once after any failure. So an error that lasts, such as that of an endpoint that is
// broken for good, is returned after a pause of about a second, but not later than the wait limit; or the call
// ends the process, which is then started again.
int32_t mts_recv(int32_t handle, mts_message_t **message_out, const uint32_t options[10]);

// Opcode of a received message, host order.
uint32_t mts_opc_get(const mts_message_t *message);

// Payload of a received message: never null, readable (zero beyond its end) for at least
// MTS_READABLE_PAYLOAD_BYTES, writable, valid until mts_drop. A request's body begins MTS_REQUEST_HEADER_BYTES
// into it.
void *mts_payload_get(mts_message_t *message);

// Address of the sender of a received message. 0, or -1 for a null argument.
int32_t mts_saddr_get(const mts_message_t *message, mts_address_t *address_out);

// Sends an unsolicited message; does not wait for its receiver beyond the transport's own bound.
//   payload, length  copied before the call returns; length in bytes
//   the last three words are 0
// 0, or -1 with errno: ECONNREFUSED when nobody has the address, MTS_ERRNO_TIMED_OUT when the receiver's
// queue stayed full, EMSGSIZE when the message is larger than the transport carries.
// Sending to MTS_NODE_LISTENERS is 0 also when nobody listens.
int32_t mts_send(int32_t handle, uint32_t node, uint32_t sap, uint32_t opcode, const void *payload, uint32_t length,
                 uint32_t reserved_1, uint32_t reserved_2, uint32_t reserved_3);

// Tells the sender of a request that it is not served: its cmi_remote_req_resp fails. The message still has
// to be dropped. 0, or -1 with errno.
int32_t mts_respond_reject(int32_t handle, uint32_t reserved_1, uint32_t reserved_2, mts_message_t *message,
                           uint32_t reserved_3, uint32_t reserved_4);

// Releases a received message; its payload is not valid afterwards. Called exactly once for each. 0, or -1 with
// errno; the daemon does not look at it.
int32_t mts_drop(int32_t handle, mts_message_t *message);

#ifdef __cplusplus
}
#endif
#endif
