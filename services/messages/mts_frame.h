// Frames: what goes from one endpoint to another, and a received message.
//
//   frame       = header, payload
//
// Numbers are in host order; they are of fixed width, because a 32-bit daemon talks to 64-bit tools. What arrives
// is checked in the order of trust: who sent it, its length, its header, its values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "mts.h"

constexpr std::uint32_t MTS_FRAME_MAGIC = 0x4d545346;
constexpr std::uint16_t MTS_FRAME_VERSION = 1;

enum class mts_frame_kind : std::uint8_t {
    unsolicited = 1,
    request = 2,
    response = 3,
    reject = 4, // an answer: the request is not served
};

// Where the payload is; the driver's business.
enum class mts_frame_place : std::uint8_t {
    in_datagram = 0, // behind the header
    memory_file = 1, // in a file whose descriptor comes with the header
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
    std::uint32_t wait_ms; // of a request: how long its sender waits for the answer; 0: not said. Otherwise 0
};
static_assert(sizeof(mts_frame_header) == 40);
static_assert(offsetof(mts_frame_header, request_id) == 24);

// Whether it answers a request.
constexpr bool mts_is_answer(const mts_frame_header &header)
{
    return header.kind == mts_frame_kind::response || header.kind == mts_frame_kind::reject;
}

// Zeros behind every payload: a reader who expects more than came finds these.
constexpr std::uint32_t MTS_ZEROS_BEHIND_PAYLOAD = 704;
static_assert(MTS_ZEROS_BEHIND_PAYLOAD >= MTS_READABLE_PAYLOAD_BYTES);

// A received message. It lies in one block with its payload, which comes first: whoever is given an answer's
// payload frees it with free().
struct mts_message {
    mts_frame_header header;
    std::uint8_t *payload; // header.payload_bytes, and the zeros behind them
    std::int64_t came_us;  // when it came to the receiver's queue, as of monotonic_us
};

struct free_message {
    void operator()(mts_message *message) const { std::free(message->payload); }
};
using mts_held_message = std::unique_ptr<mts_message, free_message>;

// A message that has come now, whose payload is to be filled in. Null when there is no memory.
mts_held_message mts_message_for(const mts_frame_header &header);

// A payload to be sent, in one or two pieces.
struct mts_payload {
    const void *head;
    std::uint32_t head_bytes;
    const void *body;
    std::uint32_t body_bytes;

    std::uint64_t size() const { return std::uint64_t{head_bytes} + body_bytes; }
};

// Whether a header that has arrived is one that this version of the frames knows.
bool mts_frame_header_is_sound(const mts_frame_header &header);
