// Datagrams between the cards of a cluster over the kernel's transport, TIPC.
//
// An address is a service address: its type is made of the service access point, its instance is the node. Any user
// of a card may bind any service address and send to any socket, and the kernel does not say which user it was. So
// all cards of a chassis have one key, which only root can read (chassis_key.h):
//
//   - a socket of ours publishes a proof that its maker has the key (tipc_names.h). A sender looks up who has an
//     address, and sends to a socket with a proof, by the socket's own id. A socket without one gets nothing.
//   - each datagram is sealed (sealed_datagram.h): with the key, for one receiving socket, by one sending socket,
//     and with a number that only rises. What is not is dropped and counted in transport/refused.
//
// The kernel vouches for the ids of sockets: nobody sends with another one's, and no id comes again in a cluster's
// life but by a chance of one to 4 billion. So an id is the incarnation of an endpoint: one that comes back after
// its link was down is the same.
//
// A message travels in pieces (TIPC carries 66,000 bytes), and its receiver says how much it has taken: of what it
// has not, WINDOW_BYTES are under way at most, and the rest of one message waits with the sender, who goes on with
// it whenever he sends or receives.
#pragma once

#include "datagram_driver.h"

extern const datagram_driver tipc_driver;
