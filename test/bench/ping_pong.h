// The least that a request between two processes can cost: a message there and a message back, over a pair of
// SOCK_SEQPACKET sockets, to a process that does nothing but what it is told to.
#pragma once

#include <functional>
#include <sys/types.h>
#include <vector>

#include "unique_fd.h"

class ping_pong
{
public:
    // prepare is called in the other process, before it answers; work likewise, before each answer. When one of
    // them throws, that process says why and ends. Throws std::runtime_error.
    ping_pong(std::size_t request_bytes, std::size_t answer_bytes, const std::function<void()> &prepare = {},
              const std::function<void()> &work = {});
    ~ping_pong();
    ping_pong(const ping_pong &) = delete;
    ping_pong &operator=(const ping_pong &) = delete;

    void round_trip();
    pid_t other_process() const { return other_; } // which answers, unless prepare has forked

private:
    unique_fd socket_;
    std::vector<char> request_;
    std::vector<char> answer_;
    pid_t other_ = -1;
};
