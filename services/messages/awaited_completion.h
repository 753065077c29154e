// The end of a programming that this card has forwarded to another module, and that a process of it waits for.
//
// The module's daemon reports the end by MTS_OPC_BIOS_PROGRAMMING_DONE. When nobody is left who will, the transport
// makes the message: when the process that took the request is gone, or when there was neither progress nor, by the
// word of the module's agent, a process that writes its flash for COMPLETION_PATIENCE_US. Its result is the one
// that the agent's events tell of this very programming, which is known by its writer, else BIOS_ERR_NO_COMPLETION.
//
// The questions to the agent go out from the waiting endpoint and are answered while it waits: no call blocks.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "datagram_driver.h"
#include "monotonic_clock.h"

struct mts_endpoint;

constexpr std::int64_t COMPLETION_PATIENCE_US = 30 * MICROSECONDS;

class awaited_completion
{
public:
    //   target    the daemon that took the request; peer: the process
    //   instance  the flash that is programmed
    awaited_completion(mts_address_t target, const datagram_peer &peer, std::uint32_t instance);

    // Finds out what is due.
    void look(mts_endpoint &endpoint);
    std::int64_t next_look_us() const { return next_look_us_; }

    // Whether a message is an answer to a question of this object; it is used up.
    bool takes(const mts_message &message);

    // Learns from a message that is received: progress is a sign of life.
    void notice(const mts_message &message);
    // Whether a message reports the end.
    bool is_ended_by(const mts_message &message) const;

    // Nobody will report the end: behind what had arrived until then, made() is received.
    bool is_given_up() const { return state_ == state::given_up; }
    bool came_later(const mts_message &message) const { return is_given_up() && message.came_us > given_up_us_; }
    mts_held_message made() const;

private:
    enum class state : std::uint8_t { waiting, asking_for_result, given_up };

    // The process that was seen writing.
    struct writer {
        std::uint32_t pid;
        std::string since;
    };

    void ask(mts_endpoint &endpoint, std::uint32_t opcode, const void *body, std::uint32_t bytes);
    void ask_for_result(mts_endpoint &endpoint);
    void give_up();
    void take_card(const mts_message &answer);
    void take_events(const mts_message &answer);

    mts_address_t target_;
    datagram_peer peer_;
    std::uint32_t instance_;
    state state_ = state::waiting;
    std::int64_t next_look_us_;
    std::int64_t last_sign_us_;
    std::uint64_t asked_id_ = 0; // of the question under way; 0: none
    std::uint32_t asked_opcode_ = 0;
    std::int64_t result_until_us_ = 0;
    std::int64_t given_up_us_ = 0;
    std::optional<writer> writer_;
    std::uint32_t result_;
};
