// TIPC's sockets: ids, addresses, and a datagram sent or received by one call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <linux/tipc.h>
#include <span>
#include <sys/socket.h>
#include <sys/uio.h>

#include "unique_fd.h"

// Which socket of the cluster: its card as the kernel numbers cards, and its number there.
struct tipc_socket_id {
    std::uint32_t node = 0;
    std::uint32_t ref = 0;

    auto operator<=>(const tipc_socket_id &) const = default;
};

struct tipc_service {
    std::uint32_t type = 0;
    std::uint32_t instance = 0;
};

// A socket for datagrams that come in order and at most once; close-on-exec. Empty with errno.
unique_fd tipc_datagram_socket();

// Its own id. false with errno.
bool tipc_own_id(int socket, tipc_socket_id &id_out);

// Gives the socket a name, seen in the whole cluster. false with errno.
bool tipc_bind(int socket, tipc_service name);

enum class tipc_sending {
    sent,
    no_room,   // on its way at the moment
    is_gone,   // nobody has the socket, or its card is gone
    has_failed // errno
};
// Sends without waiting. Whether a receiver on this card has refused it, the next datagram says that is received.
tipc_sending tipc_send(int socket, tipc_socket_id to, std::span<const iovec> parts);

struct tipc_arrival {
    tipc_socket_id from = {};   // of one that came back: whom it had been sent to
    std::size_t bytes = 0;      // larger than the buffer when it was cut
    std::uint32_t returned = 0; // TIPC_ERR_*, when it is one that came back: its first bytes are in the buffer then
};
// Takes a datagram without waiting. false with errno: EAGAIN when there is none.
bool tipc_receive(int socket, std::span<std::uint8_t> buffer, tipc_arrival &arrival_out);
