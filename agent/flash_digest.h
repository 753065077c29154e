// What a flash of the card holds, as a digest.
#pragma once

#include "answer.h"

answer digest_answer(const agent_flash_digest_req_t &request); // AGENT_OPC_GET_DIGEST
