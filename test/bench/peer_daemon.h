// The daemon of fwupd, on a message bus of its own and with state of its own.
#pragma once

#include <memory>

#include "started_process.h"
#include "timed_process.h"

class peer_daemon
{
public:
    peer_daemon(); // returns when it serves and has become idle; throws std::runtime_error

    pid_t number() const { return daemon_->number(); }

private:
    void await_service();
    void await_idleness() const;

    bench_folder folder_;
    std::string bus_address_;
    std::unique_ptr<started_process> bus_;
    std::unique_ptr<started_process> daemon_;
};
