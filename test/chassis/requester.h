// Asks a daemon directly, over the transport, and follows what becomes of it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bios_messages.h"
#include "mts.h"

// How a programming is asked for.
struct programming_options {
    std::optional<std::string> uri = {}; // none: the image tree
    std::uint8_t type = 0;
    unsigned via = 1; // slot whose daemon is asked
};

struct progress_record {
    std::uint32_t phase;
    std::uint32_t percent;
    std::uint32_t attempt;
};

// What was seen of a programming.
struct programming {
    int error = 0;                         // 0: the request was answered
    std::uint32_t answer = 0;              // its answer's status
    std::vector<progress_record> progress; // in order of arrival
    std::optional<std::uint32_t> result;   // none: no end was reported
    std::optional<std::uint32_t> module; // that the notice names; none: the end came by a message to the requester
    std::chrono::duration<double> elapsed{}; // from the request to the report

    bool verified() const { return !progress.empty() && progress.back().percent == 100; }
};

// "answer 0, result 0x4071000c for module 1, progress 0..40, attempt 1".
std::ostream &operator<<(std::ostream &out, const programming &seen);

bios_programming_req_t programming_request(std::uint32_t module, const programming_options &options);

// What came back for a request.
struct request_reply {
    int error = 0;            // 0: it was answered; else the errno of cmi_remote_req_resp
    std::uint32_t status = 0; // of the answer
    std::string payload;
};

// An endpoint of the test, which has to be attached to the chassis.
class requester
{
public:
    requester();
    ~requester();
    requester(const requester &) = delete;
    requester &operator=(const requester &) = delete;

    // Asks and gets the answer; the rest is for await_end.
    programming start(std::uint32_t module, const programming_options &options = {});

    // Receives until the end is reported; the result stays none when it was not in time.
    void await_end(programming &seen, std::chrono::seconds patience = std::chrono::seconds(120));

    // Takes what is there, and does not wait. What comes when the endpoint's queue is full is lost.
    void take_progress(programming &seen);

    // Receives until the event or the deadline; false at the deadline or when the end was reported before.
    template<class predicate>
    bool await_progress(programming &seen, predicate &&event, std::chrono::seconds patience);

    // Any request; the answer's status, none with the errno of cmi_remote_req_resp when no answer came.
    std::optional<std::uint32_t> request(unsigned slot, std::uint32_t opcode, const std::string &body, int &error,
                                         unsigned wait_limit_s = 60);

    // Any request, with what came back whole.
    request_reply ask(unsigned slot, std::uint32_t opcode, const std::string &body, unsigned wait_limit_s = 60);

    mts_address_t address() const;

    // Takes all messages that are there; the number of those with the opcode.
    unsigned take_waiting(std::uint32_t opcode);

    // Any message, with exactly this payload. false with errno.
    bool send(unsigned slot, std::uint32_t opcode, const void *payload, std::uint32_t length);

private:
    bool receive_one(programming &seen, unsigned wait_limit_s);

    std::int32_t handle_;
    std::chrono::steady_clock::time_point asked_;
};

template<class predicate>
bool requester::await_progress(programming &seen, predicate &&event, std::chrono::seconds patience)
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!event(seen)) {
        if (seen.result || std::chrono::steady_clock::now() >= deadline)
            return false;
        (void)receive_one(seen, 1);
    }
    return true;
}
