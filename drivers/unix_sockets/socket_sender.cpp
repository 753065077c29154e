// Sending: connections to destinations, kept for the next message, and the bounded wait for a full receiver.
#include "socket_port.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>

#include "monotonic_clock.h"
#include "socket_datagram.h"
#include "socket_directory.h"

namespace
{

constexpr std::size_t SENDERS_LIMIT = 32; // connections kept per port
constexpr std::size_t SMALL_FRAME_BYTES =
    2048; // copied into one piece: the system takes that in less time than three

// One frame as the system takes it: in one piece when it is small, else as sendmsg has it.
struct outgoing {
    mts_frame_header header;
    std::array<char, SMALL_FRAME_BYTES> small;
    std::size_t small_bytes; // 0: not small
    std::array<iovec, 3> part;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    unique_fd memory_file;
    msghdr message;
};

iovec part_of(const void *data, std::size_t bytes)
{
    return {const_cast<void *>(data), bytes};
}

void attach_memory_file(outgoing &frame)
{
    std::memset(frame.control, 0, sizeof frame.control);
    frame.message.msg_control = frame.control;
    frame.message.msg_controllen = sizeof frame.control;
    cmsghdr *control = CMSG_FIRSTHDR(&frame.message);
    control->cmsg_level = SOL_SOCKET;
    control->cmsg_type = SCM_RIGHTS;
    control->cmsg_len = CMSG_LEN(sizeof(int));
    const int descriptor = frame.memory_file.get();
    std::memcpy(CMSG_DATA(control), &descriptor, sizeof descriptor);
}

char *append(char *end, const void *bytes, std::size_t count)
{
    if (count > 0)
        std::memcpy(end, bytes, count);
    return end + count;
}

void put_together(outgoing &frame, const mts_payload &payload)
{
    frame.header.place = mts_frame_place::in_datagram;
    char *end = append(frame.small.data(), &frame.header, sizeof frame.header);
    end = append(end, payload.head, payload.head_bytes);
    end = append(end, payload.body, payload.body_bytes);
    frame.small_bytes = static_cast<std::size_t>(end - frame.small.data());
}

// 0, or -1 with errno when the memory file of a large payload cannot be made.
int prepare(outgoing &frame, const mts_payload &payload)
{
    if (sizeof frame.header + payload.size() <= SMALL_FRAME_BYTES) {
        put_together(frame, payload);
        return 0;
    }
    frame.small_bytes = 0;
    frame.message = {};
    frame.message.msg_iov = frame.part.data();
    frame.part[0] = part_of(&frame.header, sizeof frame.header);
    if (payload.size() <= INLINE_PAYLOAD_BYTES) {
        frame.header.place = mts_frame_place::in_datagram;
        frame.part[1] = part_of(payload.head, payload.head_bytes);
        frame.part[2] = part_of(payload.body, payload.body_bytes);
        frame.message.msg_iovlen = frame.part.size();
        return 0;
    }
    frame.header.place = mts_frame_place::memory_file;
    frame.memory_file = payload_memory_file(payload);
    if (!frame.memory_file)
        return -1;
    frame.message.msg_iovlen = 1;
    attach_memory_file(frame);
    return 0;
}

auto find_sender(socket_port &port, mts_address_t to)
{
    return std::find_if(port.senders.begin(), port.senders.end(), [&](const socket_sender &sender) {
        return sender.address.node == to.node && sender.address.sap == to.sap;
    });
}

void forget_sender(socket_port &port, mts_address_t to)
{
    const auto found = find_sender(port, to);
    if (found != port.senders.end())
        port.senders.erase(found);
}

// The connection to a destination, made when there is none. Null with errno.
socket_sender *sender_to(socket_port &port, mts_address_t to)
{
    const auto found = find_sender(port, to);
    if (found != port.senders.end()) {
        std::rotate(found, found + 1, port.senders.end());
        return &port.senders.back();
    }
    socket_sender fresh{};
    fresh.address = to;
    fresh.socket = socket_directory_connect(port.directory.get(), to, fresh.identity);
    if (!fresh.socket)
        return nullptr;
    if (port.senders.size() == SENDERS_LIMIT)
        port.senders.erase(port.senders.begin());
    port.senders.push_back(std::move(fresh));
    return &port.senders.back();
}

// Waits until the receiver may have room. false when there was none until the deadline.
bool wait_for_room(const socket_sender &sender, std::int64_t deadline)
{
    const std::int64_t left_ms = (deadline - monotonic_us() + 999) / 1000;
    if (left_ms <= 0)
        return false;
    pollfd room = {sender.socket.get(), POLLOUT, 0};
    (void)::poll(&room, 1, static_cast<int>(left_ms)); // when a signal ends it the caller tries and comes again
    return true;
}

bool try_to_send(int socket, const outgoing &frame)
{
    constexpr int FLAGS = MSG_DONTWAIT | MSG_NOSIGNAL;
    const ssize_t sent = frame.small_bytes > 0 ? ::send(socket, frame.small.data(), frame.small_bytes, FLAGS)
                                               : ::sendmsg(socket, &frame.message, FLAGS);
    return sent >= 0;
}

// 0, or -1 with the errno of sendmsg or MTS_ERRNO_TIMED_OUT. A receiver that has kept one message waiting in vain
// is not waited for again until it takes one: a caller that sends many must not stand still for each.
int send_to(socket_sender &sender, const outgoing &frame, send_patience &patience)
{
    std::int64_t begin = 0;
    std::int64_t deadline = 0;
    for (;;) {
        const bool sent = try_to_send(sender.socket.get(), frame);
        const int failure = sent ? 0 : errno;
        if (failure == EINTR)
            continue;
        if (failure == EAGAIN && begin == 0 && !sender.stuck) {
            begin = monotonic_us();
            deadline = begin + patience.wait_us(frame.header);
        }
        if (failure == EAGAIN && !sender.stuck && wait_for_room(sender, deadline))
            continue;
        if (begin != 0 && !sent)
            patience.waited_in_vain(frame.header, monotonic_us() - begin);
        sender.stuck = failure == EAGAIN;
        errno = failure == EAGAIN ? MTS_ERRNO_TIMED_OUT : failure;
        return sent ? 0 : -1;
    }
}

bool means_dead_receiver(int error)
{
    return error == ECONNREFUSED || error == ECONNRESET || error == ENOTCONN || error == EPIPE;
}

} // namespace

bool socket_send(socket_port &port, mts_address_t to, const mts_frame_header &header, const mts_payload &payload,
                 datagram_peer *peer_out)
{
    if (payload.size() > MTS_MAX_PAYLOAD_BYTES) {
        errno = EMSGSIZE;
        return false;
    }
    outgoing frame;
    frame.header = header;
    if (prepare(frame, payload) != 0)
        return false;

    // A kept connection may lead to a process that is gone and has a successor: connect anew, once.
    for (unsigned attempt = 0; attempt < 2; ++attempt) {
        socket_sender *sender = sender_to(port, to);
        if (sender == nullptr)
            return false;
        if (send_to(*sender, frame, port.patience) == 0) {
            if (peer_out != nullptr)
                *peer_out = sender->identity;
            return true;
        }
        if (!means_dead_receiver(errno))
            return false;
        forget_sender(port, to);
    }
    errno = ECONNREFUSED;
    return false;
}
