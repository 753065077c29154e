// The agent of a card, as the card's keeper has it: a session of its own beside the daemon's, so that neither's end
// is the other's. It is started again when it ends.
#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>

#include "card_root.h"
#include "endpoint_probe.h"
#include "isolation.h"
#include "unique_fd.h"

struct agent_options {
    std::string directory; // of the chassis, absolute
    unsigned slot = 0;
    isolation way = isolation::plain;
    std::string program; // the executable; a card of tools without one has no agent
};

class card_agent
{
public:
    explicit card_agent(agent_options options) : options_(std::move(options)) {}

    // Starts it unless it runs.
    void ensure_started(const card_root &root);

    // Ends it, for the card goes down or boots; reap it with has_ended.
    void kill();

    // Whether a process that was reaped was the agent's; it is due to be started again then.
    bool has_ended(pid_t process);

    bool runs() const { return session_ != 0; }
    bool is_due() const;       // to be started again
    int wait_limit_ms() const; // until it is due; -1: it is not
    bool serves_or_hangs();    // it has taken a message, has not in time, or is not to run at all

private:
    using steady = std::chrono::steady_clock;

    bool is_there() const;
    void start(const card_root &root);

    agent_options options_;
    pid_t session_ = 0; // 0: none
    unique_fd reports_; // of the session; nobody reads them
    endpoint_probe probe_;
    bool serves_ = false;
    bool was_killed_ = false;
    steady::time_point started_ = {};
    steady::time_point due_ = steady::time_point::max();
};
