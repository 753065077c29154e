// Request and response over the message transport (mts.h).
#ifndef PLATFORM_CMI_H
#define PLATFORM_CMI_H

#include "mts.h"

#ifdef __cplusplus
extern "C" {
#endif

// Answers a received request.
//   payload, length  the answer's payload, copied before the call returns; payload may be null, and then an
//                    answer without payload is sent whatever length says
//   message          the request; it still has to be dropped
//   status           0, or the code that cmi_remote_req_resp returns to the requester
// 0, or -1 with errno as of mts_send.
int32_t cmi_response(const void *payload, uint32_t length, int32_t handle, mts_message_t *message, uint32_t status);

// Sends a request to an endpoint of another node and waits for its answer. Other messages that arrive at the
// handle meanwhile are kept for mts_recv. An answer that comes when nobody waits for it any more is dropped: it is
// neither taken for the answer to another request nor received by mts_recv. Only so many messages are kept; a
// request that is not is rejected.
//
// On a card the wait is bounded by what is asked, whatever wait_limit says: 10 seconds for a version query, 30 for
// MTS_OPC_BIOS_PROGRAMMING_START. Such a request fails at once, as if the wait had passed, when the endpoint let
// the last one pass and has not been heard of since. Installations and all other requests wait as long as
// wait_limit says.
//   opcode            of the request
//   request_type      3
//   request           the request's body, *length bytes; or the same pointer as length, for a request without
//                     body of its own: its body is then the first *length bytes of tag_1
//   response_out      set to the answer's payload (malloc; the caller frees it), also when its status is not 0, or
//                     to null when no answer came; readable, zero beyond its end, for at least
//                     MTS_READABLE_PAYLOAD_BYTES
//   length            in: bytes of the body; out: bytes of the answer's payload
//   tag_1, tag_2      text that the transport puts into the request's header
//   sap, node         the endpoint asked
//   wait_limit        seconds; the transport may be set up to wait less, and tells the receiver how long it waits
// 0 when the answer came with status 0; the answer's status when it is not 0; -1 with errno when no answer
// came: MTS_ERRNO_TIMED_OUT, ECONNREFUSED (nobody has the address), ECONNRESET (the endpoint went away while
// waiting), EOPNOTSUPP (the request was rejected).
int32_t cmi_remote_req_resp(uint32_t opcode, uint32_t request_type, const void *request, void **response_out,
                            uint32_t *length, const char *tag_1, const char *tag_2, uint32_t sap, uint32_t node,
                            int32_t handle, uint32_t wait_limit);

#ifdef __cplusplus
}
#endif
#endif
