// What goes over the wire: a seal, and a piece of a message behind it. Numbers are in host order and of fixed
// width: the cards of a chassis are of one byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "hmac_sha256.h"
#include "tipc_socket.h"

enum class sealed_kind : std::uint32_t {
    piece = 1, // of a message: a frame header and its payload
    room = 2,  // the receiver has taken so much of what the other side has sent; no bytes behind the seal
};

struct datagram_seal {
    std::uint32_t magic;
    std::uint32_t kind;          // of sealed_kind
    std::uint64_t number;        // rises from datagram to datagram of a socket
    std::uint64_t taken_bytes;   // of room; else 0
    std::uint32_t message_bytes; // of a piece: of its whole message; else 0
    std::uint32_t offset;        // of a piece: where it begins in the message; else 0
    std::uint32_t piece_bytes;   // behind the seal
    std::uint32_t zero;
    sha256_digest digest; // of the piece
    sha256_digest code;   // by the key, of both sockets' ids and all of the seal before
};
static_assert(sizeof(datagram_seal) == 104);
static_assert(offsetof(datagram_seal, digest) == 40);

constexpr std::uint32_t SEAL_MAGIC = 0x53454132;
constexpr std::size_t PIECE_BYTES_MAX = TIPC_MAX_USER_MSG_SIZE - sizeof(datagram_seal);

// Fills in magic, digest, code and the number of bytes. piece: its parts in their order.
void seal(datagram_seal &seal, std::span<const iovec> piece, tipc_socket_id from, tipc_socket_id to,
          const shared_key &key);

// The seal of a datagram that came from a socket, when it is whole and right for the receiver; the rest of the
// datagram is the piece. The seal's code is checked before the piece is looked at.
std::optional<datagram_seal> open_seal(std::span<const std::uint8_t> datagram, tipc_socket_id from,
                                       tipc_socket_id to, const shared_key &key);
