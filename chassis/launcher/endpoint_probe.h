// Tells when a card's daemon or agent serves: when it has taken a message from its endpoint.
//
// That the endpoint is there says less: a daemon binds it early in its start, before it has looked at the
// inventory, and what is changed in the inventory then may or may not be seen by it. So a message is sent that is
// none (one byte, which every endpoint drops without a word), and the kernel is asked whether it still waits.
#pragma once

#include <cstdint>

#include "unique_fd.h"

class endpoint_probe
{
public:
    // Whether who serves a service access point of the slot's node has taken the message. Does not block; false
    // also while there is no endpoint.
    bool is_taken(unsigned slot, std::uint32_t sap);

    // Begins anew, for another start of the daemon.
    void reset() { socket_.reset(); }

private:
    unique_fd socket_; // the message was sent from it
};
