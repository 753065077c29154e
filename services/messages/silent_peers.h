// Peers that did not answer a request of this process in time. A further request to one of them fails at once until
// it is heard of again: whatever it sends, or that another process has its address. It is asked for a sign of life
// meanwhile, by a request that every transport answers by itself (MTS_OPCODE_SIGN_OF_LIFE).
//
// A forked child knows what its parent knew.
#pragma once

#include "mts_endpoint.h"

// Notes that a peer did not answer in time.
void silent_peer_note(mts_address_t address, const datagram_peer &peer);

// Notes that something came from an address.
void silent_peer_heard(mts_address_t address);

// Whether requests to an address fail at once. Asks for a sign of life, at most once a second, and waits for it no
// longer than 0.1 s; other messages that come meanwhile are kept for mts_recv.
bool is_silent_peer(mts_endpoint &endpoint, mts_address_t address);
