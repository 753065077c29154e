// The cards of a chassis that has no common inventory: each agent tells all others of its card, and keeps what it
// is told as inventory/SLOT/kind, card_id and sup_state, where all services look. A card that is not heard of any
// more stays there, in no state: it may come back, and an operator has to see that it is missing.
//
// Which supervisor is active, the redundancy manager of the system says, by the file that inventory/SLOT/sup_state
// of the own slot leads to. Where there is none, this is the rule: the active one stays active as long as it is
// heard of; when none is, the one in the lowest slot becomes active; of two that are active the one in the higher
// slot steps back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>

#include "agent_messages.h"
#include "mts.h"

constexpr std::int64_t ROSTER_TELL_US = 1'000'000;    // how often a card tells of itself
constexpr std::int64_t ROSTER_SILENCE_US = 5'000'000; // after which a card is not there any more

enum class redundancy_rule : std::uint8_t {
    of_the_system, // its manager writes the own state
    of_the_agents,
};

class card_roster
{
public:
    using tell_function = std::function<void(const agent_module_t &own)>;

    card_roster(redundancy_rule rule, tell_function tell, std::function<std::int64_t()> now_us)
        : rule_(rule),
          tell_(std::move(tell)),
          now_us_(std::move(now_us)),
          begun_us_(now_us_())
    {
    }

    // What another card tells of itself.
    //   from  only a card's own agent may
    void take(mts_address_t from, const void *body, std::size_t bytes);

    void tick();

    // Microseconds until tick has something to do.
    std::int64_t wait_limit_us() const;

private:
    struct heard_card {
        agent_module_t told = {};
        std::int64_t heard_us = 0;
        bool is_there = true;
    };

    void leave_silent_cards(std::int64_t now);
    void follow_rule(std::int64_t now);
    bool hears_active_supervisor(bool below_own_slot) const;
    bool is_lowest_supervisor() const;

    redundancy_rule rule_;
    tell_function tell_;
    std::function<std::int64_t()> now_us_;
    std::int64_t begun_us_;
    std::int64_t next_us_ = 0;
    std::map<unsigned, heard_card> cards_; // by slot
};

// That of this process's card, over its endpoint: by the system's rule when the own state in the inventory is a
// link.
void start_card_roster(std::int32_t handle);
card_roster *own_card_roster(); // null: the inventory is a common one
