// Whether an image was signed by somebody whom this card trusts.
#pragma once

#include "answer.h"

// AGENT_OPC_VERIFY_IMAGE. Reads the whole file: for a worker.
answer verified_answer(const agent_verify_req_t &request);
