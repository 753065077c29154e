// Whether an image was signed by somebody whom this card trusts.
#pragma once

#include "answer.h"
#include "image_signature.h"

// AGENT_OPC_VERIFY_IMAGE. Reads the whole file: for a worker.
answer verified_answer(const agent_verify_req_t &request);

// AGENT_OK of a good one, else the status that says what is wrong.
agent_status signature_status_of(image_signature_state state);
