// biosctl lock and unlock. The agent of the module's card keeps a lock for the operator; while it does, nobody can
// have the module programmed. It ends with biosctl unlock, or by itself when its time is over.
#pragma once

#include <cstdint>

#include "agents.h"
#include "outcome.h"

constexpr unsigned LOCK_TIMEOUT_S = 3600; // without --timeout

struct lock_options {
    unsigned module = 0;
    unsigned timeout_s = LOCK_TIMEOUT_S;
};
outcome run_lock(const lock_options &options);

struct unlock_options {
    unsigned module = 0;
    bool force = false; // also the lock of a programming, or of another operator
};
outcome run_unlock(const unlock_options &options);

// What the agent's answer means; pure functions of it.
//   holder  who has the lock now; none: nobody, or it cannot be told
outcome report_lock(const lock_options &options, const operator_lock_reply &reply,
                    const std::optional<chassis_module_lock_holder> &holder);
outcome report_unlock(const unlock_options &options, const operator_lock_reply &reply,
                      const std::optional<chassis_module_lock_holder> &holder);
