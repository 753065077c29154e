// Endpoints of this process: their sockets, what was received ahead, and the connections to those they send to.
//
// A handle is an index into the table of endpoints and is never given out twice. In a forked child the table is
// emptied at once: an inherited socket would keep the parent's address alive after the parent's death.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "socket_directory.h"
#include "message_faults.h"
#include "mts_frame.h"

// The connection of an endpoint to one destination.
struct mts_sender {
    mts_address_t address;
    unique_fd socket;
    mts_socket_identity identity;
    bool stuck = false; // the last wait for room in the receiver's queue was in vain
};

// The requests that an endpoint has received last: one that comes twice on its way is received once.
class mts_seen_requests
{
public:
    // Whether a message is a request that was noted before; notes it.
    [[nodiscard]] bool repeats(const mts_frame_header &header);

private:
    struct seen_request {
        std::uint32_t node = 0;
        std::uint32_t sap = 0;
        std::uint64_t id = 0;

        bool operator==(const seen_request &) const = default;
    };
    std::array<seen_request, 64> requests_{};
    std::size_t next_ = 0;
};

struct mts_endpoint {
    mts_address_t address;
    unique_fd directory;
    unique_fd socket;
    uid_t user; // only this user's messages are accepted; user namespaces translate it
    std::string name;
    std::vector<std::uint32_t> listens; // opcodes
    std::vector<mts_sender> senders;    // the most recently used last
    std::uint64_t refused = 0;          // messages of other users that were dropped

    std::int64_t socket_wait_us = 0;               // receive time-out that the socket is set to; 0: none
    std::deque<std::unique_ptr<mts_message>> kept; // received while waiting for an answer
    std::uint64_t kept_bytes = 0;
    std::uint64_t arrivals = 0; // messages that came
    mts_late_messages late;
    mts_seen_requests seen;
};

// Binds an endpoint; sap may be -1. The handle, or -1 with errno.
std::int32_t mts_endpoint_bind(std::int32_t sap, const char *name);

// The endpoint of a handle, or null with errno EBADF.
mts_endpoint *mts_endpoint_of(std::int32_t handle);

void mts_endpoint_unbind(std::int32_t handle);

// Monotonic clock, microseconds.
std::int64_t mts_now_us();

enum class mts_wanted {
    messages,  // unsolicited messages and requests; answers that nobody waits for any more are dropped
    everything // answers too
};

// Receives the next message from the endpoint's socket, waiting from now until deadline (mts_now_us). Datagrams
// that are no messages are dropped and do not prolong the wait.
// Null with errno: MTS_ERRNO_TIMED_OUT, MTS_ERRNO_INTERRUPTED, or that of the system call that failed.
std::unique_ptr<mts_message> mts_endpoint_receive(mts_endpoint &endpoint, mts_wanted wanted, std::int64_t now,
                                                  std::int64_t deadline);

// Keeps a message for a later mts_recv; drops it when too many are kept.
void mts_endpoint_keep(mts_endpoint &endpoint, std::unique_ptr<mts_message> message);

// The oldest message kept, or null.
std::unique_ptr<mts_message> mts_endpoint_take_kept(mts_endpoint &endpoint);

// Sends a frame; header needs kind, opcode, status and request_id, the rest is filled in. Waits a short while for
// room in the receiver's queue (mts_sender.cpp).
//   identity_out  who it went to; may be null
// 0, or -1 with errno as of mts_send.
int mts_endpoint_send(mts_endpoint &endpoint, mts_address_t to, mts_frame_header header, const mts_payload &payload,
                      mts_socket_identity *identity_out);
