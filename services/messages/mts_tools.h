// What the chassis's transport offers to tools and tests beyond the platform's contract (mts.h, cmi.h): listening
// for an opcode, giving an endpoint back, and facts that the daemon never asks for.
//
// Below the chassis directory:
//   mts/NODE.SAP                   the endpoint's socket, both words as 8 hexadecimal digits
//   mts/listen.OPCODE.NODE.SAP     the endpoint listens for the opcode
//   transport/wait_limit_s         optional number: no request of a card waits longer for its answer, whatever its
//                                  caller says; tools are not bound. Read once per second of waiting, so a change
//                                  counts for requests under way
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "datagram_driver.h"
#include "mts.h"

extern "C" {

// Has messages to MTS_NODE_LISTENERS with this opcode delivered to the endpoint too. 0, or -1 with errno.
std::int32_t mts_listen(std::int32_t handle, std::uint32_t opcode);

// As mts_recv, and waits at most so many microseconds.
std::int32_t mts_recv_within(std::int32_t handle, mts_message_t **message_out, std::int64_t wait_us);

// Closes an endpoint and removes its files. Messages received from it stay valid until they are dropped.
void mts_unbind(std::int32_t handle);

// Bytes of a received message's payload.
std::uint32_t mts_payload_length(const mts_message_t *message);

// Address of an endpoint of this process, to be named in requests as where notices go.
// 0, or -1 with errno EBADF and the output as it was.
std::int32_t mts_own_address(std::int32_t handle, mts_address_t *address_out);

// Descriptor that becomes readable when a message arrives, for poll beside a terminal or a signal descriptor; it
// stays the transport's. Messages kept back during a cmi_remote_req_resp do not make it readable: after a request,
// receive with a wait limit of 0 until MTS_ERRNO_TIMED_OUT first. -1 with errno EBADF.
std::int32_t mts_descriptor(std::int32_t handle);

// Node of the daemon of a slot by the inventory: slot * 256 + 1 on a supervisor, + 2 on any other card; 1, the node
// of tools, for slot 0.
std::uint32_t mts_node_of_slot(std::uint32_t slot);

// Whether a living process has the address.
bool mts_is_bound(std::uint32_t node, std::uint32_t sap);
}

// The process that has the address; another one after it has ended. None when nobody has it.
std::optional<datagram_peer> mts_peer_at(std::uint32_t node, std::uint32_t sap);

// The nodes on which living processes have a service access point, ascending.
std::vector<std::uint32_t> mts_nodes_with(std::uint32_t sap);
