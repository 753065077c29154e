// A bound address: its socket, the connections to those it sends to, and what came and is to be received later.
#pragma once

#include <cstdint>
#include <sys/types.h>
#include <vector>

#include "datagram_driver.h"
#include "message_faults.h"
#include "send_patience.h"
#include "unique_fd.h"

// The connection of a port to one destination.
struct socket_sender {
    mts_address_t address;
    unique_fd socket;
    datagram_peer identity;
    bool stuck = false; // the last wait for room in the receiver's queue was in vain
};

struct socket_port {
    mts_address_t address;
    unique_fd directory;
    unique_fd socket;
    uid_t user;                         // only this user's messages are accepted; user namespaces translate it
    std::vector<std::uint32_t> listens; // opcodes
    std::vector<socket_sender> senders; // the most recently used last
    send_patience patience;

    std::int64_t socket_wait_us = 0; // receive time-out that the socket is set to; 0: none
    std::uint64_t arrivals = 0;      // messages that came
    std::uint64_t refused = 0;       // messages of other users that were dropped
    late_messages late;
};

// As of datagram_driver's send.
bool socket_send(socket_port &port, mts_address_t to, const mts_frame_header &header, const mts_payload &payload,
                 datagram_peer *peer_out);
