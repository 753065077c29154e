// What the agents of the cards say (agent_messages.h). A card whose agent lets three requests wait for
// AGENT_WAIT_LIMIT_S each has said nothing, and is not asked again for a while.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "chassis_module_lock.h"
#include "flash_event.h"
#include "flash_event_log.h"
#include "flash_event_totals.h"
#include "flash_geometry.h"
#include "flash_progress_file.h"

constexpr unsigned AGENT_WAIT_LIMIT_S = 1;

// A card of the chassis, as its cards know it.
struct chassis_module {
    unsigned slot = 0;
    std::uint32_t kind = 0;
    std::uint32_t card_id = 0;   // 0: not known
    std::uint32_t sup_state = 0; // SYSMGR_SUP_STATE_ACTIVE, SYSMGR_SUP_STATE_STANDBY, else neither
};

// The cards that are known, in order of their slots; none when no agent answers.
std::optional<std::vector<chassis_module>> ask_for_modules();

struct card_flash {
    unsigned instance = 0;
    std::uint32_t size_bytes = 0;
    std::uint32_t sector_bytes = 0;
    std::uint64_t erases = 0;
    flash_activity activity = {};
    flash_event_log_state log = {};
};

struct card_facts_told {
    bool serves = false; // its daemon's endpoint is bound
    std::vector<card_flash> flashes = {};

    // None when the card has no such flash.
    const card_flash *flash(unsigned instance) const;
};

// These ask the agent of one card; node is that of the card's daemon.
std::optional<card_facts_told> ask_for_card(std::uint32_t node);
std::optional<std::string> ask_for_version(std::uint32_t node, unsigned instance);
std::optional<std::vector<flash_event>> ask_for_events(std::uint32_t node, unsigned instance,
                                                       std::uint64_t after_sequence);
std::optional<flash_event_totals> ask_for_totals(std::uint32_t node, unsigned instance);

// The module locks that are held; none when no agent answers.
std::optional<std::vector<chassis_module_lock_holder>> ask_for_locks();

// How a programming has ended, as a supervisor has told whoever listened.
struct told_result {
    unsigned module = 0;
    std::uint32_t code = 0;
    unsigned reported_by_slot = 0;
    std::string time; // UTC, "2026-01-31T23:59:59Z"
};
std::optional<std::vector<told_result>> ask_for_results();
