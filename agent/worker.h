// Requests that take longer than the agent may keep others waiting: a process of its own does the work and answers.
#pragma once

#include <cstdint>
#include <functional>

#include "answer.h"

struct mts_message;

constexpr unsigned AGENT_WORKERS_MAX = 8; // one that has answered takes some milliseconds to end

// Has a child answer a request. AGENT_ERR_BUSY is answered when as many work already or none can be started.
//   work  runs in the child, which ends behind it, at the latest after a minute
// Whether the message is kept until the child has ended; else it stays the caller's.
[[nodiscard]] bool answer_by_worker(std::int32_t handle, mts_message *message, const std::function<answer()> &work);

// Gives back the messages of those that have ended. Whoever asked for what ended without an answer gets
// AGENT_ERR_UNREADABLE.
void reap_workers();

// Microseconds until reap_workers may have something to do; -1: nobody works.
std::int64_t worker_wait_limit_us();
