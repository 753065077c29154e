// Sending: messages are cut into pieces, and a receiver that does not take them is not sent more than a window.
#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>

#include "monotonic_clock.h"
#include "tipc_port.h"

namespace
{

// The bytes of a message, where they lie.
using message_parts = std::array<iovec, 3>;

// The parts of the parts that make up a piece.
std::array<iovec, 3> piece_of(const message_parts &parts, std::size_t offset, std::size_t bytes)
{
    std::array<iovec, 3> piece{};
    for (std::size_t k = 0; k < parts.size(); ++k) {
        const std::size_t skipped = std::min(offset, parts[k].iov_len);
        const std::size_t taken = std::min(bytes, parts[k].iov_len - skipped);
        if (taken > 0)
            piece[k] = {static_cast<std::uint8_t *>(parts[k].iov_base) + skipped, taken};
        offset -= skipped;
        bytes -= taken;
    }
    return piece;
}

std::vector<std::uint8_t> copy_from(const message_parts &parts, std::size_t offset)
{
    std::vector<std::uint8_t> bytes;
    for (const iovec &part : parts) {
        const std::size_t skipped = std::min(offset, part.iov_len);
        const auto *begin = static_cast<const std::uint8_t *>(part.iov_base);
        bytes.insert(bytes.end(), begin + skipped, begin + part.iov_len);
        offset -= skipped;
    }
    return bytes;
}

tipc_sending send_sealed(tipc_port &port, tipc_socket_id to, datagram_seal &head, const std::array<iovec, 3> &piece)
{
    head.number = ++port.number;
    seal(head, piece, port.id, to, *port.key);
    std::array<iovec, 4> parts{{{&head, sizeof head}, piece[0], piece[1], piece[2]}};
    return tipc_send(port.socket.get(), to, parts);
}

tipc_sending send_piece(tipc_port &port, tipc_socket_id to, tipc_receiver &receiver, std::uint32_t message_bytes,
                        std::uint32_t offset, const std::array<iovec, 3> &piece)
{
    datagram_seal head{};
    head.kind = static_cast<std::uint32_t>(sealed_kind::piece);
    head.message_bytes = message_bytes;
    head.offset = offset;
    const tipc_sending sent = send_sealed(port, to, head, piece);
    if (sent == tipc_sending::sent)
        receiver.under_way += piece_charge(head.piece_bytes);
    return sent;
}

// What lies in the socket's queue. Not without an end: somebody may send faster than it is taken.
void take_all(tipc_port &port)
{
    constexpr unsigned AT_ONCE = 1000;
    for (unsigned count = 0; count < AT_ONCE && take_datagram(port) != tipc_taking::none; ++count)
        ;
}

// Whether all that was begun is sent, or the receiver's window is full: nothing can be done before it takes some.
bool go_on_sending_to(tipc_port &port, tipc_socket_id to, tipc_receiver &receiver)
{
    while (!receiver.unsent.empty() && !receiver.is_gone && !receiver.is_full &&
           receiver.under_way < WINDOW_BYTES) {
        unsent_message &message = receiver.unsent.front();
        const std::size_t bytes = std::min(message.rest.size() - message.sent, PIECE_BYTES_MAX);
        const std::array<iovec, 3> piece{{{message.rest.data() + message.sent, bytes}, {}, {}}};
        const tipc_sending sent = send_piece(port, to, receiver, message.message_bytes,
                                             message.offset + static_cast<std::uint32_t>(message.sent), piece);
        if (sent == tipc_sending::no_room)
            return false;
        receiver.is_gone = receiver.is_gone || sent != tipc_sending::sent;
        message.sent += bytes;
        if (message.sent == message.rest.size())
            receiver.unsent.pop_front();
    }
    if (receiver.is_gone || receiver.is_full)
        receiver.unsent.clear(); // the pieces that are missing come no more
    return true;
}

// Waits until something comes, which may be that the receiver has taken some. false when the time is over.
bool wait_for_arrival(const tipc_port &port, std::int64_t deadline)
{
    constexpr std::int64_t LOOK_MS = 20; // the link may have room again, which nobody says
    const std::int64_t left_ms = (deadline - monotonic_us() + 999) / 1000;
    if (left_ms <= 0)
        return false;
    pollfd arrival = {port.socket.get(), POLLIN, 0};
    (void)::poll(&arrival, 1, static_cast<int>(std::min(left_ms, LOOK_MS)));
    return true;
}

// Pieces, as many as the receiver and the link take; the rest waits. no_room: there was none for the first one.
tipc_sending send_pieces(tipc_port &port, tipc_socket_id to, tipc_receiver &receiver, const message_parts &parts,
                         std::uint32_t message_bytes)
{
    std::uint32_t offset = 0;
    while (offset < message_bytes && (offset == 0 || receiver.under_way < WINDOW_BYTES)) {
        const std::size_t bytes = std::min<std::size_t>(message_bytes - offset, PIECE_BYTES_MAX);
        const tipc_sending sent =
            send_piece(port, to, receiver, message_bytes, offset, piece_of(parts, offset, bytes));
        if (sent == tipc_sending::no_room && offset > 0)
            break;
        if (sent != tipc_sending::sent)
            return sent;
        offset += static_cast<std::uint32_t>(bytes);
    }
    if (offset < message_bytes)
        receiver.unsent.push_back(
            {.rest = copy_from(parts, offset), .message_bytes = message_bytes, .offset = offset});
    return tipc_sending::sent;
}

bool refused()
{
    errno = ECONNREFUSED;
    return false;
}

} // namespace

bool go_on_sending(tipc_port &port)
{
    bool is_waiting = false;
    for (auto &[to, receiver] : port.receivers)
        is_waiting = !go_on_sending_to(port, to, receiver) || is_waiting;
    if (!port.has_untold)
        return is_waiting;
    port.has_untold = false;
    for (auto &[from, sender] : port.senders) {
        if (sender.untold >= TOLD_BYTES)
            tell_taken(port, from, sender);
    }
    return is_waiting || port.has_untold;
}

bool send_to_socket(tipc_port &port, tipc_socket_id to, const mts_frame_header &header, const mts_payload &payload)
{
    mts_frame_header head = header;
    head.place = mts_frame_place::in_datagram;
    const message_parts parts{{{&head, sizeof head},
                               {const_cast<void *>(payload.head), payload.head_bytes},
                               {const_cast<void *>(payload.body), payload.body_bytes}}};
    const auto message_bytes = static_cast<std::uint32_t>(sizeof head + payload.size());
    tipc_receiver &receiver = port.receivers[to];
    std::int64_t begin = 0;
    std::int64_t deadline = 0;
    for (;;) {
        take_all(port);
        if (receiver.is_gone)
            return refused();
        (void)go_on_sending_to(port, to, receiver);
        receiver.is_full = false;
        if (receiver.has_room()) {
            const tipc_sending sent = send_pieces(port, to, receiver, parts, message_bytes);
            if (sent == tipc_sending::has_failed)
                return false;
            take_all(port); // one on this card that is gone or full has sent it back by now
            if (sent == tipc_sending::is_gone || receiver.is_gone)
                return refused();
            if (sent == tipc_sending::sent && !receiver.is_full) {
                receiver.stuck = false;
                return true;
            }
            receiver.unsent.clear();
        }
        if (begin == 0) {
            begin = monotonic_us();
            deadline = begin + (receiver.stuck ? 0 : port.patience.wait_us(header));
        }
        if (!wait_for_arrival(port, deadline))
            break;
    }
    port.patience.waited_in_vain(header, monotonic_us() - begin);
    receiver.stuck = true;
    errno = MTS_ERRNO_TIMED_OUT;
    return false;
}

void tell_taken(tipc_port &port, tipc_socket_id to, tipc_sender &sender)
{
    datagram_seal head{};
    head.kind = static_cast<std::uint32_t>(sealed_kind::room);
    head.taken_bytes = sender.untold;
    const tipc_sending sent = send_sealed(port, to, head, {});
    if (sent == tipc_sending::no_room)
        port.has_untold = true; // it may wait for just this
    else
        sender.untold = 0;
}
