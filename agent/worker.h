// Requests that take longer than the agent may keep others waiting: a process of its own does the work and answers.
#pragma once

#include <cstdint>
#include <functional>

#include "answer.h"

struct mts_message;

constexpr unsigned AGENT_WORKERS_MAX = 8; // one that has answered takes some milliseconds to end

// Has a child answer a request; AGENT_ERR_BUSY is answered when as many work already or none can be started. The
// message stays the caller's.
//   work  runs in the child, which ends behind it, at the latest after a minute
void answer_by_worker(std::int32_t handle, mts_message *message, const std::function<answer()> &work);

// Forgets those that have ended.
void reap_workers();
