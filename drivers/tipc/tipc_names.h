// The names that a socket of ours has in the cluster: its address, what it listens for, and the proof that its
// maker has the chassis key: the words of a code of the socket's own id, each published as the instance of a type
// of its own. Anybody may read and publish them, but they prove another socket nothing.
#pragma once

#include <optional>
#include <vector>

#include "hmac_sha256.h"
#include "mts.h"
#include "topology.h"

constexpr std::uint32_t TIPC_SAPS = 1 << 24; // service access points, and opcodes, that have a name

// Names begin at types that nobody is known to use.
constexpr std::uint32_t TIPC_ADDRESS_TYPE = 0x62000000;  // + service access point; the instance is the node
constexpr std::uint32_t TIPC_LISTENER_TYPE = 0x63000000; // + opcode; the instance is the node
constexpr std::uint32_t TIPC_PROOF_TYPE = 0x64000000;    // + place of the word, which is the instance
constexpr std::uint32_t TIPC_PROOF_WORDS = 4;
constexpr std::uint32_t TIPC_TIME_TYPE = 0x65000000; // the instance: when the socket was made, seconds since 1970

constexpr tipc_range address_range(mts_address_t address)
{
    return {TIPC_ADDRESS_TYPE + address.sap, address.node, address.node};
}

// Publishes the proof of a socket, and the time. false with errno.
bool publish_proof(int socket, const shared_key &key);

// When a socket was made, seconds since 1970 by its card's clock; 0: not known.
std::int64_t made_at_s(tipc_socket_id socket);

// Those of a number of publications whose sockets have a proof, in their order. None with errno when the topology
// service cannot be asked. Who publishes without a proof costs the others a question to this card's kernel.
std::optional<std::vector<tipc_publication>> proved(const std::vector<tipc_publication> &publications,
                                                    const shared_key &key);

// The proved sockets that have a name of the range. None with errno.
std::optional<std::vector<tipc_publication>> find_proved(const tipc_range &range, const shared_key &key);
