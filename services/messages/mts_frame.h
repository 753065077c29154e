// Frames: what a datagram between two endpoints looks like, and a received message.
//
//   datagram    = header, payload       when the payload is inline
//               | header                when it is in a memory file, whose descriptor comes with the datagram
//
// Both ends are on one machine, so numbers are in host order; they are of fixed width, because a 32-bit daemon
// talks to 64-bit tools. What arrives is checked in the order of trust: who sent it, its length, its header, its
// values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sys/socket.h>

#include "free_block.h"
#include "mts.h"
#include "unique_fd.h"

constexpr std::uint32_t MTS_FRAME_MAGIC = 0x4d545346;
constexpr std::uint16_t MTS_FRAME_VERSION = 1;
constexpr std::uint32_t MTS_INLINE_PAYLOAD_BYTES = 64u << 10; // a larger payload travels in a memory file

enum class mts_frame_kind : std::uint8_t {
    unsolicited = 1,
    request = 2,
    response = 3,
    reject = 4, // an answer: the request is not served
};

enum class mts_frame_place : std::uint8_t {
    in_datagram = 0,
    memory_file = 1,
};

struct mts_frame_header {
    std::uint32_t magic;
    std::uint16_t version;
    mts_frame_kind kind;
    mts_frame_place place;
    std::uint32_t opcode;
    std::uint32_t source_node;
    std::uint32_t source_sap;
    std::uint32_t status;     // of a response, otherwise 0
    std::uint64_t request_id; // of a request and its answer, otherwise 0
    std::uint32_t payload_bytes;
    std::uint32_t reserved; // 0
};
static_assert(sizeof(mts_frame_header) == 40);
static_assert(offsetof(mts_frame_header, request_id) == 24);

// Zeros behind every payload: a reader who expects more than came finds these.
constexpr std::uint32_t MTS_ZEROS_BEHIND_PAYLOAD = 704;
static_assert(MTS_ZEROS_BEHIND_PAYLOAD >= MTS_READABLE_PAYLOAD_BYTES);

using mts_block = owned_block<std::uint8_t>;

// A block for a payload, which is not initialised, and the zeros behind it. Null when there is no memory.
mts_block mts_payload_block(std::uint32_t payload_bytes);

// A received message.
struct mts_message {
    mts_frame_header header;
    mts_block payload; // from mts_payload_block
};

// A payload to be sent, in one or two pieces.
struct mts_payload {
    const void *head;
    std::uint32_t head_bytes;
    const void *body;
    std::uint32_t body_bytes;

    std::uint64_t size() const { return std::uint64_t{head_bytes} + body_bytes; }
};

// A received datagram as it came: at most one frame, and the descriptors that came with it.
struct mts_datagram {
    struct {
        mts_frame_header header;
        std::uint8_t payload[MTS_INLINE_PAYLOAD_BYTES];
    } frame;
    std::size_t bytes;     // of frame that were received
    bool cut;              // the datagram was longer, or descriptors were lost
    uid_t sender;          // (uid_t)-1 when unknown
    unique_fd memory_file; // the one descriptor that came
    unsigned descriptors;  // how many came
};

// Reads one datagram from a socket. flags as of recvmsg. 0, or -1 with the errno of recvmsg.
int mts_datagram_receive(int socket, int flags, mts_datagram &datagram);

// The message in a datagram, or null when the datagram is none that user may send, or there is no memory for it.
std::unique_ptr<mts_message> mts_datagram_accept(mts_datagram &datagram, uid_t user);

// A sealed memory file that holds the payload. No descriptor and errno when it cannot be made.
unique_fd mts_memory_file(const mts_payload &payload);
