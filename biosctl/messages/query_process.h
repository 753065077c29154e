// A request that is under way in a process of its own, so that several daemons can be asked at once: each waits
// for one answer and hands it back through a pipe.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

#include "client.h"
#include "unique_fd.h"

struct daemon_query {
    std::uint32_t node = 0; // of the daemon asked
    daemon_request request = {};
    unsigned wait_limit_s = 0;
    std::size_t answer_bytes_max = 0; // of the answer's payload that are handed back; the rest is cut
};

class query_process
{
public:
    explicit query_process(const daemon_query &query); // a failure becomes the answer
    ~query_process();                                  // ends a process that still waits
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
std::vector<request_answer> ask_all(const std::vector<daemon_query> &queries);
