// Messages that were dropped because another user's process has sent them.
//
// Below the chassis directory:
//   transport/refused   "TIME NODE.SAP COUNT UID": UTC, the endpoint as its socket is named, how many it has
//                       dropped so far, and the user who sent the last of them, as the endpoint's process knows
//                       users
//
// A line comes at an endpoint's 1st, 2nd, 4th, 8th ... of them: nobody fills a disk in this way.
#pragma once

#include <cstdint>
#include <sys/types.h>

#include "mts.h"

// Tells of a dropped message; count: how many the endpoint has dropped, this one included. Keeps errno.
void note_refused_message(mts_address_t endpoint, std::uint64_t count, uid_t sender) noexcept;
