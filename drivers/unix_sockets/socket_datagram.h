// Frames in datagrams of a UNIX socket.
//
//   datagram    = header, payload       when the payload is inline
//               | header                when it is in a memory file, whose descriptor comes with the datagram
#pragma once

#include <cstdint>
#include <memory>
#include <sys/socket.h>

#include "mts_frame.h"
#include "unique_fd.h"

constexpr std::uint32_t INLINE_PAYLOAD_BYTES = 64u << 10; // a larger payload travels in a memory file

// A received datagram as it came: at most one frame, and the descriptors that came with it.
struct socket_datagram {
    struct {
        mts_frame_header header;
        std::uint8_t payload[INLINE_PAYLOAD_BYTES];
    } frame;
    std::size_t bytes;      // of frame that were received
    bool cut;               // the datagram was longer, or descriptors were lost
    uid_t sender;           // (uid_t)-1 when unknown
    std::int64_t queued_us; // how long it lay in the queue; 0: not known
    unique_fd memory_file;  // the one descriptor that came
    unsigned descriptors;   // how many came
};

// Reads one datagram from a socket. flags as of recvmsg. 0, or -1 with the errno of recvmsg.
int socket_datagram_receive(int socket, int flags, socket_datagram &datagram);

// The message in a datagram, or null when the datagram is not one that user may send, or there is no memory for it.
mts_held_message socket_datagram_accept(socket_datagram &datagram, uid_t user);

// A sealed memory file that holds the payload. No descriptor and errno when it cannot be made.
unique_fd payload_memory_file(const mts_payload &payload);
