// Faults on demand: what the transport is told to do to messages on their way. The file `transport/faults` of the
// chassis holds one rule a line,
//
//     <lose|double|delay|truncate> <percent>% <seed> [milliseconds]
//
//   lose      the message does not arrive
//   double    it arrives twice; a request is received once for all that
//   delay     it arrives later, by 1 to so many milliseconds (1000 when left out, 60000 at most), and those behind
//             it overtake it
//   truncate  only the beginning of its payload arrives, from nothing at all to all but one byte
//   percent   of the messages, 0.001 to 100
//
// Every message counts: requests, answers, rejections and others, to daemons and to tools. To each message happens
// what the first rule says whose turn it is; empty lines, and those that are no rules, count for nothing. A change
// of the file counts some milliseconds later (watched_file.h). The same rules do the same to the n-th message that
// an endpoint receives.
//
// What happened is told in `transport/faulted`, a line for each: time, receiver, fault, kind of message, opcode,
// payload's bytes, and how late it comes or how many bytes are left.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string_view>

#include "mts_frame.h"

enum class message_fault : std::uint8_t { none, lose, twice, delay, truncate };

struct message_fault_order {
    message_fault fault = message_fault::none;
    std::uint32_t delay_ms = 0;   // of delay
    std::uint32_t bytes_left = 0; // of truncate
};

// What rules order for the arrival-th message that a receiver gets, which has so many bytes of payload.
[[nodiscard]] message_fault_order message_fault_drawn(std::string_view rules, mts_address_t receiver,
                                                      std::uint64_t arrival, std::uint32_t payload_bytes);

// Messages that came and are to be received later.
class late_messages
{
public:
    // due: as of monotonic_us. Gives the message back when too many are kept.
    [[nodiscard]] mts_held_message add(mts_held_message message, std::int64_t due);

    // The message that is due first, or null when none is due yet.
    mts_held_message take_due(std::int64_t now);

    bool empty() const { return messages_.empty(); }

    // When the next one is due; deadline when that is earlier, or there is none.
    std::int64_t next_due(std::int64_t deadline) const;

private:
    struct late_message {
        std::int64_t due;
        mts_held_message message;
    };
    std::deque<late_message> messages_; // by when they are due
    std::uint64_t bytes_ = 0;
};

// Has the rules' way with a message that has arrived, the arrival-th of its receiver. The message to be received
// now; null when it is lost or late.
mts_held_message message_faults_pass(mts_held_message message, mts_address_t receiver, std::uint64_t arrival,
                                     late_messages &late);
