// Client side of the message transport: an endpoint of this process, requests to a daemon, received messages,
// and whether a daemon still lives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "big_endian.h"
#include "daemon_request.h"
#include "datagram_driver.h"
#include "mts.h"

// How long a request is waited for that the daemon answers at once, but for a lock that it has to ask others for.
constexpr unsigned ANSWER_WAIT_LIMIT_S = 300;

struct received_message {
    std::uint32_t opcode = 0;
    mts_address_t source{};
    std::vector<std::uint8_t> payload; // exactly what was sent

    bool is_from_daemon(std::uint32_t node) const;

    // The payload's word at a byte offset; none when the payload ends before.
    std::optional<std::uint32_t> word(std::size_t offset) const;
};

struct request_answer {
    bool answered = false;                  // false: error tells why not
    int error = 0;                          // errno as cmi_remote_req_resp gives it
    std::uint32_t status = 0;               // of the answer
    std::vector<std::uint8_t> payload = {}; // of the answer; empty when the status is not 0
};

// An endpoint at a service access point of the transport's choice.
class client_endpoint
{
public:
    client_endpoint(); // bound() tells whether it worked, errno why not
    ~client_endpoint();
    client_endpoint(const client_endpoint &) = delete;
    client_endpoint &operator=(const client_endpoint &) = delete;

    bool bound() const { return handle_ >= 0; }

    // Has the messages of an opcode that are sent to whoever listens delivered here. false with errno.
    [[nodiscard]] bool listen(std::uint32_t opcode);

    // Sends a request to the daemon of a node and waits for the answer. Other messages are kept for receive.
    request_answer request(std::uint32_t node, const daemon_request &request, unsigned wait_limit_s);

    // The same to the agent beside the daemon of a node.
    request_answer request_agent(std::uint32_t node, std::uint32_t opcode, std::span<const std::uint8_t> body,
                                 unsigned wait_limit_s);

    // Where notices reach this endpoint. REQUIRES: bound.
    mts_address_t address() const;

    // Readable when a message has come, for poll. REQUIRES: no request was sent from this endpoint.
    int descriptor() const;

    // Waits for a message, 0: takes one that is there. None with errno when none came.
    std::optional<received_message> receive(unsigned wait_limit_s);

private:
    request_answer ask(mts_address_t to, std::uint32_t opcode, std::span<const std::uint8_t> body,
                       unsigned wait_limit_s);

    std::int32_t handle_;
};

// Tells whether the daemon that served a node when this was made is still there. A daemon that was started again is
// another one.
class daemon_probe
{
public:
    explicit daemon_probe(std::uint32_t node);
    bool alive() const;

private:
    std::uint32_t node_;
    std::optional<datagram_peer> first_;
};

// Whether somebody serves the daemon's endpoint of a node.
bool daemon_serves(std::uint32_t node);

// Why a request was not answered, in words: "nobody serves there", "rejected", ...
std::string no_answer_text(int error);
