// Which answers cmi_remote_req_resp has returned lately: so the TLV iterator knows where the one it walks ends.
#pragma once

#include <cstdint>

// Remembers an answer. It is forgotten after some more answers; nobody tells when it is freed, but an answer that
// comes to lie in the same memory takes its place.
//   bytes        of the answer
//   block_bytes  of the memory it lies in
void known_answer_add(const void *base, std::uint32_t bytes, std::uint32_t block_bytes);
