// The heads of the event logs: the last link of each flash's chain of events (flash_event_chain.h). Each agent
// tells the agents of the supervisors in other slots the heads of its own card, and a supervisor's agent keeps what
// it is told in slots/SLOT/event_heads, lines "SLOT INSTANCE SEQUENCE CHAIN". So a log that was cut at its end, or
// written anew, shows: the supervisor knows better.
//
// A head is told when the log has changed, and again from time to time, because messages may be lost and agents may
// begin later. A head with a lower sequence number than the known one is passed over.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "answer.h"
#include "flash_event_log.h"
#include "flash_geometry.h"
#include "mts.h"

constexpr std::int64_t HEAD_LOOK_US = 2'000'000;
constexpr std::int64_t HEAD_AGAIN_US = 60'000'000;

struct event_head {
    std::uint64_t sequence = 0;
    std::string chain; // hexadecimal digits

    bool operator==(const event_head &) const = default;
};
using event_heads = std::map<std::pair<unsigned, unsigned>, event_head>; // by slot and instance

std::string event_heads_format(const event_heads &heads);
event_heads event_heads_parse(const std::string &text); // lines that format does not give are passed over

// Those that this card knows of others.
event_heads load_event_heads();

// Keeps a head that was told.
//   from  who tells it: only a card's own agent may
void take_event_head(mts_address_t from, const void *body, std::size_t bytes);

answer head_answer(const agent_head_req_t &request); // AGENT_OPC_GET_HEAD

// Tells the heads of this card.
class head_teller
{
public:
    using send_function = std::function<void(mts_address_t to, const agent_event_head_t &head)>;

    head_teller(send_function send, std::function<std::int64_t()> now_us)
        : send_(std::move(send)),
          now_us_(std::move(now_us))
    {
    }
    void tick();

    // Microseconds until tick has something to do.
    std::int64_t wait_limit_us() const;

private:
    void tell(unsigned instance);

    send_function send_;
    std::function<std::int64_t()> now_us_;
    std::int64_t next_look_us_ = 0;
    std::array<std::int64_t, FLASH_INSTANCE_COUNT> told_us_ = {}; // 0: never
    std::array<flash_event_log_state, FLASH_INSTANCE_COUNT> told_state_ = {};
};

// The teller of this process's card, over its endpoint.
void start_head_teller(std::int32_t handle);
head_teller *card_head_teller(); // null before
