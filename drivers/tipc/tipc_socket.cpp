#include "tipc_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace
{

constexpr int QUEUE_BYTES = 8 << 20; // of one socket; the kernel takes four times as much at this importance

sockaddr *generic(sockaddr_tipc &address)
{
    return reinterpret_cast<sockaddr *>(&address);
}

sockaddr_tipc address_of(tipc_socket_id id)
{
    sockaddr_tipc address{};
    address.family = AF_TIPC;
    address.addrtype = TIPC_SOCKET_ADDR;
    address.addr.id = {id.ref, id.node};
    return address;
}

tipc_socket_id id_of(const sockaddr_tipc &address)
{
    return {address.addr.id.node, address.addr.id.ref};
}

// What the kernel says of a datagram that came back: why, and its first bytes.
void take_return(msghdr &message, std::span<std::uint8_t> buffer, tipc_arrival &arrival)
{
    for (cmsghdr *control = CMSG_FIRSTHDR(&message); control != nullptr; control = CMSG_NXTHDR(&message, control)) {
        const std::size_t bytes = control->cmsg_len - CMSG_LEN(0);
        if (control->cmsg_level != SOL_TIPC)
            continue;
        if (control->cmsg_type == TIPC_ERRINFO && bytes >= sizeof arrival.returned)
            std::memcpy(&arrival.returned, CMSG_DATA(control), sizeof arrival.returned);
        if (control->cmsg_type == TIPC_RETDATA) {
            arrival.bytes = std::min(bytes, buffer.size());
            std::memcpy(buffer.data(), CMSG_DATA(control), arrival.bytes);
        }
    }
}

} // namespace

unique_fd tipc_datagram_socket()
{
    unique_fd socket(::socket(AF_TIPC, SOCK_RDM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket)
        return socket;
    // Before those of other users, and what cannot be delivered comes back. A larger queue is welcome: without the
    // right to it the socket has the usual one.
    const int importance = TIPC_HIGH_IMPORTANCE;
    const int droppable = 0;
    const int queue_bytes = QUEUE_BYTES;
    (void)::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &queue_bytes, sizeof queue_bytes);
    if (::setsockopt(socket.get(), SOL_TIPC, TIPC_IMPORTANCE, &importance, sizeof importance) != 0 ||
        ::setsockopt(socket.get(), SOL_TIPC, TIPC_DEST_DROPPABLE, &droppable, sizeof droppable) != 0)
        return unique_fd();
    return socket;
}

bool tipc_own_id(int socket, tipc_socket_id &id_out)
{
    sockaddr_tipc address{};
    socklen_t bytes = sizeof address;
    if (::getsockname(socket, generic(address), &bytes) != 0)
        return false;
    id_out = id_of(address);
    return true;
}

bool tipc_bind(int socket, tipc_service name)
{
    sockaddr_tipc address{};
    address.family = AF_TIPC;
    address.addrtype = TIPC_SERVICE_RANGE;
    address.scope = TIPC_CLUSTER_SCOPE;
    address.addr.nameseq = {name.type, name.instance, name.instance};
    return ::bind(socket, generic(address), sizeof address) == 0;
}

tipc_sending tipc_send(int socket, tipc_socket_id to, std::span<const iovec> parts)
{
    sockaddr_tipc address = address_of(to);
    msghdr message{};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = const_cast<iovec *>(parts.data());
    message.msg_iovlen = parts.size();
    for (;;) {
        if (::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
            return tipc_sending::sent;
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == ENOBUFS)
            return tipc_sending::no_room;
        if (errno == EHOSTUNREACH || errno == ECONNREFUSED || errno == ENOTCONN)
            return tipc_sending::is_gone;
        return tipc_sending::has_failed;
    }
}

bool tipc_receive(int socket, std::span<std::uint8_t> buffer, tipc_arrival &arrival_out)
{
    sockaddr_tipc from[2] = {}; // the second is that of a member of a group, which ours are not
    iovec part = {buffer.data(), buffer.size()};
    alignas(cmsghdr) char
        control[CMSG_SPACE(2 * sizeof(std::uint32_t)) + CMSG_SPACE(1024) + CMSG_SPACE(3 * sizeof(std::uint32_t))];
    msghdr message{};
    message.msg_name = from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t got = 0;
    do {
        got = ::recvmsg(socket, &message, MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got < 0)
        return false;
    arrival_out = {.from = id_of(from[0]), .bytes = static_cast<std::size_t>(got), .returned = TIPC_OK};
    take_return(message, buffer, arrival_out);
    if ((message.msg_flags & MSG_TRUNC) != 0)
        arrival_out.bytes = buffer.size() + 1;
    return true;
}
