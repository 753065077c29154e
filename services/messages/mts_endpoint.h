// Endpoints of this process: a port of the card's datagram driver each, and what was received ahead.
//
// A handle is an index into the table of endpoints and is never given out twice. In a forked child the table is
// emptied at once: an inherited port would keep the parent's address alive after the parent's death.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>

#include "awaited_completion.h"
#include "datagram_driver.h"

// The requests that an endpoint has received last: one that comes twice on its way is received once.
class mts_seen_requests
{
public:
    // Whether a message is a request that was noted before; notes it.
    [[nodiscard]] bool repeats(const mts_frame_header &header);

private:
    struct seen_request {
        std::uint64_t id = 0; // first: it tells most of them apart
        std::uint32_t node = 0;
        std::uint32_t sap = 0;

        bool operator==(const seen_request &) const = default;
    };
    std::array<seen_request, 64> requests_{};
    std::size_t next_ = 0;
};

struct mts_endpoint {
    datagram_port *port;               // given back by mts_endpoint_unbind, or at the end of the process
    std::deque<mts_held_message> kept; // received while waiting for an answer
    std::uint64_t kept_bytes = 0;
    mts_seen_requests seen;
    std::optional<awaited_completion> awaited; // of a programming that was forwarded from here

    mts_address_t address() const { return card_datagram_driver->address(port); }
};

// Opcode of a request that no program sees: every endpoint rejects it, which says that its process is alive. A
// transport that does not know it delivers it, and then the program rejects it.
constexpr std::uint32_t MTS_OPCODE_SIGN_OF_LIFE = 0;

// Binds an endpoint of this card's node; sap may be ANY_SAP. The handle, or -1 with errno.
std::int32_t mts_endpoint_bind(std::int32_t sap);

// The endpoint of a handle, or null with errno EBADF.
mts_endpoint *mts_endpoint_of(std::int32_t handle);

void mts_endpoint_unbind(std::int32_t handle);

enum class mts_wanted {
    messages,  // unsolicited messages and requests; answers that nobody waits for any more are dropped
    everything // answers too
};

// Receives the next message from the endpoint's port, waiting from now until deadline (monotonic_us). What is not
// wanted is dropped and does not prolong the wait.
// Null with errno: MTS_ERRNO_TIMED_OUT, MTS_ERRNO_INTERRUPTED, or that of the system call that failed.
mts_held_message mts_endpoint_receive(mts_endpoint &endpoint, mts_wanted wanted, std::int64_t now,
                                      std::int64_t deadline);

// Keeps a message for a later mts_recv. When too many are kept a request is rejected, and any other message
// dropped.
void mts_endpoint_keep(mts_endpoint &endpoint, mts_held_message message);

// The oldest message kept, or null.
mts_held_message mts_endpoint_take_kept(mts_endpoint &endpoint);

// Rejects a request. 0, or -1 with errno as of mts_send.
int mts_endpoint_reject(mts_endpoint &endpoint, const mts_frame_header &request);

// Sends a frame; header needs kind, opcode, status, wait_ms and request_id, the rest is filled in.
//   to        MTS_NODE_LISTENERS as its node: whoever listens for the opcode
//   peer_out  who it went to; may be null; not set for listeners
// 0, or -1 with errno as of mts_send.
int mts_endpoint_send(mts_endpoint &endpoint, mts_address_t to, mts_frame_header header, const mts_payload &payload,
                      datagram_peer *peer_out);
