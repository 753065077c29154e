// What "biosctl watch" knows. The cards' agents are asked: no daemon is held up.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent_messages.h"
#include "chassis_module_lock.h"
#include "flash_geometry.h"
#include "flash_progress_file.h"

struct watched_card {
    unsigned slot = 0;
    std::string role;       // "active", "standby" or "none"
    bool confirmed = true;  // its agent has said so; false: nothing is known of its flashes
    bool serves = false;    // its daemon's endpoint is bound
    bool is_silent = false; // its daemon has not looked for messages for long
    std::array<flash_activity, FLASH_INSTANCE_COUNT> flashes = {};
    std::array<bool, FLASH_INSTANCE_COUNT> is_spare = {}; // the card's next start does not need the flash
};

// What the notice about the end of a programming says.
struct noticed_result {
    std::uint32_t code = 0;
    std::string time;                           // UTC: of the end of the work on the flash, else of the notice
    unsigned reported_by_slot = 0;              // whose daemon has sent the notice
    agent_outcome outcome = AGENT_OUTCOME_NONE; // what the code means, as the programmed card says; NONE: not known

    bool operator==(const noticed_result &) const = default;
};
using results_by_module = std::map<unsigned, noticed_result>;

struct watch_facts {
    std::string now; // UTC, "2026-01-31T23:59:59Z"
    std::vector<watched_card> cards;
    bool locks_readable = true; // false: locks is empty and nothing is known
    std::vector<chassis_module_lock_holder> locks;
    results_by_module results;
    bool results_readable = true;
};

// modules: those to look at; empty: all that the chassis has at the moment
watch_facts read_watch_facts(const std::vector<unsigned> &modules);
