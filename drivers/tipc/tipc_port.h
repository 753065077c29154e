// A bound address: its socket, those it sends to, those that send to it, and what came and is to be received.
#pragma once

#include <deque>
#include <map>
#include <vector>

#include "datagram_driver.h"
#include "hmac_sha256.h"
#include "sealed_datagram.h"
#include "send_patience.h"
#include "tipc_socket.h"

// What one piece counts in a receiver's queue, which holds more than its bytes.
constexpr std::uint64_t piece_charge(std::uint64_t bytes)
{
    return bytes + 1024;
}

constexpr std::uint64_t WINDOW_BYTES = 1 << 20;        // that a receiver has not taken, of one sender
constexpr std::uint64_t TOLD_BYTES = WINDOW_BYTES / 4; // after so many a receiver says that it has taken them
constexpr std::uint32_t FRAME_HEADER_BYTES = sizeof(mts_frame_header);

// A message of which pieces are still to be sent.
struct unsent_message {
    std::vector<std::uint8_t> rest; // from the offset on
    std::size_t sent = 0;           // of the rest
    std::uint32_t message_bytes = 0;
    std::uint32_t offset = 0; // of the rest
};

// One that this port sends to.
struct tipc_receiver {
    std::uint64_t under_way = 0; // charged, and not taken yet
    std::deque<unsent_message> unsent;
    bool is_gone = false; // the kernel has said so
    bool is_full = false; // it has sent a piece back, for lack of room
    bool stuck = false;   // the last wait for room was in vain

    bool has_room() const { return unsent.empty() && under_way < WINDOW_BYTES && !is_full; }
};

// One that sends to this port.
struct tipc_sender {
    std::uint64_t last_number = 0;
    std::uint64_t untold = 0; // charged, taken, and not told yet
    mts_held_message message; // of which pieces are still to come
    std::uint32_t joined = 0; // bytes of it that have come
    std::int64_t seen_us = 0; // when it has sent last
};

struct tipc_port {
    mts_address_t address{};
    tipc_socket_id id;
    unique_fd socket;
    unique_fd waiting; // readable while the inbox is not empty
    unique_fd arrival; // readable when either the socket or that is
    const shared_key *key = nullptr;
    std::uint64_t number = 0; // of the last datagram that was sent
    std::vector<std::uint32_t> listens;
    send_patience patience;

    std::map<std::pair<std::uint32_t, std::uint32_t>, datagram_peer> found; // by node and service access point
    std::map<tipc_socket_id, tipc_receiver> receivers;
    std::map<tipc_socket_id, tipc_sender> senders;
    std::deque<mts_held_message> inbox;
    std::map<tipc_socket_id, std::int64_t> lost; // peers whose card is not reached: since when, as of monotonic_us
    std::uint64_t refused = 0;                   // datagrams that were dropped
    bool has_untold = false;                     // the link had no room to tell a sender what was taken
};

enum class tipc_taking {
    none,    // there is nothing
    taken,   // something that was expected
    dropped, // something that was not
};
// Takes one datagram out of the socket's queue; a message that is whole then goes to the inbox.
tipc_taking take_datagram(tipc_port &port);

// The next message of the inbox; null when it is empty.
mts_held_message take_message(tipc_port &port);

// Sends what can be sent of messages that were begun, and tells what could not be told. Whether something is left
// that the link has no room for now.
bool go_on_sending(tipc_port &port);

// As of datagram_driver's send, to a socket. ECONNREFUSED: it is gone.
bool send_to_socket(tipc_port &port, tipc_socket_id to, const mts_frame_header &header, const mts_payload &payload);

// Tells a sender how much of what it has sent was taken.
void tell_taken(tipc_port &port, tipc_socket_id to, tipc_sender &sender);
