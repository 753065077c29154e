// Numbers of requests: an answer is found by its request's.
#pragma once

#include <cstdint>

// Those of a process begin at a random number and grow: a late answer to one request is never taken for the answer
// to another, not even by a process that has taken over the address.
std::uint64_t mts_next_request_id();
