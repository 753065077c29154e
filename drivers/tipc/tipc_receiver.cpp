// Receiving: datagrams are checked, pieces are joined.
#include <algorithm>
#include <array>
#include <bit>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sys/eventfd.h>

#include "c_boundary.h"
#include "line_file.h"
#include "monotonic_clock.h"
#include "tipc_port.h"

namespace
{

constexpr std::size_t SENDERS_KEPT = 1024;

// One buffer for the process: a piece is copied out of it before the next one is read.
std::span<std::uint8_t> arrivals_buffer()
{
    static std::array<std::uint8_t, TIPC_MAX_USER_MSG_SIZE> buffer;
    return buffer;
}

tipc_taking refuse(tipc_port &port, tipc_socket_id from, const char *why)
{
    if (std::has_single_bit(++port.refused)) {
        best_effort([&] { // the caller's business is the next message
            char text[128];
            (void)std::snprintf(text, sizeof text, "%08x.%08x %" PRIu64 " %08x:%u %s", port.address.node,
                                port.address.sap, port.refused, from.node, from.ref, why);
            (void)append_line("transport/refused", text); // what cannot be written is left out
        });
    }
    return tipc_taking::dropped;
}

void announce(tipc_port &port)
{
    const std::uint64_t one = 1;
    if (port.inbox.size() == 1)
        (void)!::write(port.waiting.get(), &one, sizeof one);
}

// The sender's place, made when it is new. One that has not sent for the longest time makes room.
tipc_sender &sender_of(tipc_port &port, tipc_socket_id from)
{
    if (port.senders.size() >= SENDERS_KEPT && !port.senders.contains(from)) {
        const auto oldest = std::ranges::min_element(port.senders, {}, [](const auto &each) {
            return std::pair(bool(each.second.message), each.second.seen_us);
        });
        tell_taken(port, oldest->first, oldest->second);
        port.senders.erase(oldest);
    }
    tipc_sender &sender = port.senders[from];
    sender.seen_us = monotonic_us();
    return sender;
}

// A message begins with its header. false when what came is none.
bool begin_message(tipc_sender &sender, const datagram_seal &seal, std::span<const std::uint8_t> piece)
{
    mts_frame_header header;
    if (piece.size() < sizeof header)
        return false;
    std::memcpy(&header, piece.data(), sizeof header);
    if (!mts_frame_header_is_sound(header) || header.payload_bytes > MTS_MAX_PAYLOAD_BYTES ||
        seal.message_bytes != sizeof header + header.payload_bytes)
        return false;
    sender.message = mts_message_for(header);
    if (!sender.message)
        return false;
    sender.joined = sizeof header;
    return true;
}

// Pieces come in their order. A message of which one is missing was left by its sender.
tipc_taking take_piece(tipc_port &port, tipc_socket_id from, tipc_sender &sender, const datagram_seal &seal,
                       std::span<const std::uint8_t> piece)
{
    if (seal.offset == 0) {
        if (!begin_message(sender, seal, piece)) {
            sender.message.reset();
            return refuse(port, from, "not a frame");
        }
        piece = piece.subspan(FRAME_HEADER_BYTES);
    } else if (!sender.message || seal.offset != sender.joined) {
        sender.message.reset();
        return refuse(port, from, "a piece is missing before it");
    }
    const std::uint32_t whole = FRAME_HEADER_BYTES + sender.message->header.payload_bytes;
    if (seal.message_bytes != whole || piece.size() > whole - sender.joined) {
        sender.message.reset();
        return refuse(port, from, "longer than its message");
    }
    if (!piece.empty())
        std::memcpy(sender.message->payload + (sender.joined - FRAME_HEADER_BYTES), piece.data(), piece.size());
    sender.joined += static_cast<std::uint32_t>(piece.size());
    if (sender.joined < whole)
        return tipc_taking::taken;
    sender.message->came_us = monotonic_us();
    port.inbox.push_back(std::move(sender.message));
    announce(port);
    return tipc_taking::taken;
}

// Who it was sent to will not take it.
void take_back(tipc_port &port, const tipc_arrival &arrival, std::span<const std::uint8_t> begin)
{
    const auto found = port.receivers.find(arrival.from);
    datagram_seal seal;
    if (found == port.receivers.end() || begin.size() < sizeof seal)
        return;
    std::memcpy(&seal, begin.data(), sizeof seal);
    const bool is_full = arrival.returned == TIPC_ERR_OVERLOAD;
    tipc_receiver &receiver = found->second;
    receiver.is_full = receiver.is_full || is_full;
    receiver.is_gone = receiver.is_gone || !is_full;
    if (static_cast<sealed_kind>(seal.kind) == sealed_kind::piece)
        receiver.under_way -= std::min(receiver.under_way, piece_charge(seal.piece_bytes));
}

void take_room(tipc_port &port, tipc_socket_id from, const datagram_seal &seal)
{
    const auto found = port.receivers.find(from);
    if (found == port.receivers.end())
        return;
    tipc_receiver &receiver = found->second;
    receiver.under_way -= std::min(receiver.under_way, seal.taken_bytes);
    receiver.stuck = false;
}

} // namespace

tipc_taking take_datagram(tipc_port &port)
{
    tipc_arrival arrival;
    const std::span<std::uint8_t> buffer = arrivals_buffer();
    if (!tipc_receive(port.socket.get(), buffer, arrival))
        return tipc_taking::none;
    if (arrival.bytes > buffer.size())
        return refuse(port, arrival.from, "too long");
    const std::span<const std::uint8_t> datagram = buffer.first(arrival.bytes);
    if (arrival.returned != TIPC_OK) {
        take_back(port, arrival, datagram);
        return tipc_taking::taken;
    }
    const auto seal = open_seal(datagram, arrival.from, port.id, *port.key);
    if (!seal)
        return refuse(port, arrival.from, "not sealed with the key of this chassis");
    tipc_sender &sender = sender_of(port, arrival.from);
    if (seal->number <= sender.last_number)
        return refuse(port, arrival.from, "sent before");
    sender.last_number = seal->number;
    if (static_cast<sealed_kind>(seal->kind) == sealed_kind::room) {
        take_room(port, arrival.from, *seal);
        return tipc_taking::taken;
    }
    if (static_cast<sealed_kind>(seal->kind) != sealed_kind::piece)
        return refuse(port, arrival.from, "of no known kind");
    sender.untold += piece_charge(seal->piece_bytes);
    if (sender.untold >= TOLD_BYTES)
        tell_taken(port, arrival.from, sender);
    return take_piece(port, arrival.from, sender, *seal, datagram.subspan(sizeof *seal));
}

mts_held_message take_message(tipc_port &port)
{
    if (port.inbox.empty())
        return nullptr;
    mts_held_message message = std::move(port.inbox.front());
    port.inbox.pop_front();
    std::uint64_t count = 0;
    if (port.inbox.empty())
        (void)!::read(port.waiting.get(), &count, sizeof count);
    return message;
}
