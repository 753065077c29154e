// Orders: what a card's agent is told before a programming begins (agent_messages.h), and what it says of the
// orders of its flashes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>

#include "agent_answers.h"
#include "flash_order.h"

struct wanted_programming {
    std::uint32_t node = 0; // of the daemon of the card whose flash is meant
    unsigned instance = 0;
    told_image image = {};
    std::string image_name = {}; // for people
    std::uint32_t forced = 0;    // bits of bios_force
    bool is_copied = false;      // another card copies the image to this one first
};

// An order that this process has placed. It is renewed by a process of its own until the object is gone or the
// order has ended, also while this process waits for an answer.
class placed_order
{
public:
    placed_order(std::uint32_t node, unsigned instance, std::uint64_t id);
    ~placed_order();
    placed_order(placed_order &&other) noexcept;
    placed_order &operator=(placed_order &&) = delete;

    // Says that the programming has ended, with a result: nobody will begin it any more. What was written is
    // recorded by who has written it.
    void end(std::uint32_t result) const;

    // The order's record as it is now; none when the agent does not answer or knows another order by now.
    std::optional<flash_order> record() const;

private:
    std::uint32_t node_;
    unsigned instance_;
    std::uint64_t id_;
    pid_t renewal_ = -1;
};

// What the agent of a card says to an order.
struct order_judgement {
    std::optional<std::uint32_t> status = {}; // of its answer; none: it has not answered
    std::uint64_t missing_bytes = 0;          // of room on the card's boot flash for the copy of the image

    bool is_good() const { return status == 0U && missing_bytes == 0; }
};

// Whether an order would be taken. Nothing is ordered.
order_judgement judge_order(const wanted_programming &wanted);

struct order_reply {
    std::optional<placed_order> order = {}; // none: it was not taken
    order_judgement judgement = {};
};
order_reply place_order(const wanted_programming &wanted);

// The order of a flash, or the last there was. None when there is none, or when the agent does not answer.
std::optional<flash_order> ask_for_order(std::uint32_t node, unsigned instance);

// Takes back the order of a flash that nobody has begun. The status of the agent's answer; none: it has not
// answered.
std::optional<std::uint32_t> cancel_order(std::uint32_t node, unsigned instance);
