// A request that is under way in a process of its own, so that several cards can be asked at once: each waits for
// one answer and hands it back through a pipe.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "client.h"
#include "unique_fd.h"

// Asks, and waits for the answer; called in the process.
using card_query = std::function<request_answer()>;
constexpr std::size_t QUERY_ANSWER_BYTES_MAX = 16 << 10; // of the payload; the rest is cut

card_query daemon_query(std::uint32_t node, daemon_request request, unsigned wait_limit_s);

class query_process
{
public:
    explicit query_process(const card_query &question); // a failure becomes the answer
    ~query_process();                                   // ends a process that still waits
    query_process(const query_process &) = delete;
    query_process &operator=(const query_process &) = delete;

    // Readable when there is something to take; negative once the process has ended.
    int descriptor() const { return pipe_.get(); }

    // Takes what has come; true when the process has ended and answer() is settled.
    bool take();
    request_answer answer() const;

private:
    pid_t pid_ = -1;
    int error_ = 0;
    unique_fd pipe_;
    std::string received_;
};

constexpr std::size_t QUERIES_AT_ONCE = 16;

// Asks all, at most QUERIES_AT_ONCE at a time. The answers are in the order of the queries.
std::vector<request_answer> ask_all(const std::vector<card_query> &queries);
