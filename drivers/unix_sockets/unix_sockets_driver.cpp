#include "unix_sockets_driver.h"

#include <algorithm>
#include <cerrno>
#include <sys/time.h>

#include "monotonic_clock.h"
#include "refused_messages.h"
#include "socket_datagram.h"
#include "socket_directory.h"
#include "socket_port.h"

namespace
{

constexpr std::int32_t DRIVERS_CHOICE = -1;
constexpr std::int64_t LONGEST_SOCKET_WAIT_US = 3600 * MICROSECONDS; // fits the system's record in 32 bits too

unique_fd receiving_socket()
{
    unique_fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (socket && ::setsockopt(socket.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0)
        return unique_fd();
    if (socket) // without them it is not known how long a message lay in the queue
        (void)::setsockopt(socket.get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    return socket;
}

int bind_address(socket_port &port, std::int32_t sap)
{
    const unique_fd lock = socket_directory_lock(port.directory.get());
    if (!lock)
        return -1;
    if (sap == DRIVERS_CHOICE)
        return socket_directory_bind_ephemeral(port.directory.get(), lock.get(), port.socket.get(),
                                               port.address.node, port.address.sap);
    port.address.sap = static_cast<std::uint32_t>(sap);
    return socket_directory_bind(port.directory.get(), port.socket.get(), port.address);
}

socket_port *bind(std::uint32_t node, std::int32_t sap)
{
    auto port = std::make_unique<socket_port>();
    port->directory = socket_directory_open();
    if (!port->directory)
        return nullptr;
    port->socket = receiving_socket();
    if (!port->socket)
        return nullptr;
    port->user = ::geteuid();
    port->address.node = node;
    return bind_address(*port, sap) == 0 ? port.release() : nullptr;
}

void unbind(socket_port *port)
{
    for (const std::uint32_t opcode : port->listens)
        listener_remove(port->directory.get(), {opcode, port->address});
    socket_directory_remove(port->directory.get(), port->address);
    delete port;
}

void abandon(socket_port *port)
{
    delete port;
}

mts_address_t address(const socket_port *port)
{
    return port->address;
}

int descriptor(const socket_port *port)
{
    return port->socket.get();
}

// One buffer for the process: a datagram is copied out of it before the next one is read.
socket_datagram &arrival()
{
    static const std::unique_ptr<socket_datagram> datagram = std::make_unique<socket_datagram>();
    return *datagram;
}

// The wait limit of a loop is the same from call to call: the socket is told only when it differs.
int wait_at_most(socket_port &port, std::int64_t wait_us)
{
    if (wait_us == port.socket_wait_us)
        return 0;
    timeval limit{};
    limit.tv_sec = static_cast<decltype(limit.tv_sec)>(wait_us / MICROSECONDS);
    limit.tv_usec = static_cast<decltype(limit.tv_usec)>(wait_us % MICROSECONDS);
    if (::setsockopt(port.socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0)
        return -1;
    port.socket_wait_us = wait_us;
    return 0;
}

// Reads a datagram into arrival(). 0, or -1 with errno (EAGAIN: none came).
int receive_within(socket_port &port, std::int64_t wait_us)
{
    if (wait_us <= 0)
        return socket_datagram_receive(port.socket.get(), MSG_DONTWAIT, arrival());
    if (wait_at_most(port, std::min(wait_us, LONGEST_SOCKET_WAIT_US)) != 0)
        return -1;
    return socket_datagram_receive(port.socket.get(), 0, arrival());
}

mts_held_message receive(socket_port *port, std::int64_t wait_us)
{
    if (!port->late.empty()) {
        const std::int64_t now = monotonic_us();
        if (auto message = port->late.take_due(now))
            return message;
        wait_us = port->late.next_due(now + wait_us) - now;
    }
    if (receive_within(*port, wait_us) != 0)
        return nullptr;
    if (arrival().sender != port->user)
        note_refused_message(port->address, ++port->refused, arrival().sender);
    auto message = socket_datagram_accept(arrival(), port->user);
    if (message)
        message = message_faults_pass(std::move(message), port->address, ++port->arrivals, port->late);
    if (!message)
        errno = EBADMSG;
    return message;
}

bool is_there(socket_port *port, mts_address_t peers_address, const datagram_peer &peer)
{
    return socket_directory_is_alive(port->directory.get(), peers_address, peer);
}

bool is_bound(mts_address_t asked, datagram_peer *peer_out)
{
    const unique_fd directory = socket_directory_open();
    datagram_peer peer;
    if (!directory || !socket_directory_connect(directory.get(), asked, peer))
        return false;
    if (peer_out != nullptr)
        *peer_out = peer;
    return true;
}

std::vector<std::uint32_t> nodes_with(std::uint32_t sap)
{
    std::vector<std::uint32_t> nodes;
    const unique_fd directory = socket_directory_open();
    if (!directory)
        return nodes;
    for (const mts_address_t bound : socket_directory_addresses(directory.get())) {
        datagram_peer peer;
        if (bound.sap == sap && socket_directory_connect(directory.get(), bound, peer))
            nodes.push_back(bound.node);
    }
    std::sort(nodes.begin(), nodes.end());
    return nodes;
}

bool listen(socket_port *port, std::uint32_t opcode)
{
    std::vector<std::uint32_t> &listens = port->listens;
    if (std::find(listens.begin(), listens.end(), opcode) != listens.end())
        return true;
    listens.push_back(opcode);
    if (listener_add(port->directory.get(), {opcode, port->address}) == 0)
        return true;
    listens.pop_back();
    return false;
}

bool send(socket_port *port, mts_address_t to, const mts_frame_header &header, const mts_payload &payload,
          datagram_peer *peer_out)
{
    return socket_send(*port, to, header, payload, peer_out);
}

bool send_to_listeners(socket_port *port, const mts_frame_header &header, const mts_payload &payload)
{
    if (payload.size() > MTS_MAX_PAYLOAD_BYTES) {
        errno = EMSGSIZE;
        return false;
    }
    const int directory = port->directory.get();
    for (const socket_listener &listener : listeners(directory)) {
        if (listener.opcode != header.opcode)
            continue;
        if (!socket_send(*port, listener.address, header, payload, nullptr) && errno == ECONNREFUSED)
            listener_remove_dead(directory, listener);
    }
    return true;
}

socket_port *own(datagram_port *port)
{
    return reinterpret_cast<socket_port *>(port);
}

const socket_port *own(const datagram_port *port)
{
    return reinterpret_cast<const socket_port *>(port);
}

} // namespace

const datagram_driver unix_sockets_driver = {
    .name = "unix_sockets",
    .bind = [](std::uint32_t node, std::int32_t sap) { return reinterpret_cast<datagram_port *>(bind(node, sap)); },
    .unbind = [](datagram_port *port) { unbind(own(port)); },
    .abandon = [](datagram_port *port) { abandon(own(port)); },
    .address = [](const datagram_port *port) { return address(own(port)); },
    .descriptor = [](const datagram_port *port) { return descriptor(own(port)); },
    .receive = [](datagram_port *port, std::int64_t wait_us) { return receive(own(port), wait_us); },
    .send = [](datagram_port *port, mts_address_t to, const mts_frame_header &header, const mts_payload &payload,
               datagram_peer *peer_out) { return send(own(port), to, header, payload, peer_out); },
    .is_there = [](datagram_port *port, mts_address_t address,
                   const datagram_peer &peer) { return is_there(own(port), address, peer); },
    .is_bound = is_bound,
    .nodes_with = nodes_with,
    .listen = [](datagram_port *port, std::uint32_t opcode) { return listen(own(port), opcode); },
    .send_to_listeners = [](datagram_port *port, const mts_frame_header &header,
                            const mts_payload &payload) { return send_to_listeners(own(port), header, payload); },
};
