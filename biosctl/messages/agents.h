// What the agents of the cards say (agent_messages.h). A card whose agent lets three requests wait for
// AGENT_WAIT_LIMIT_S each has said nothing, and is not asked again for a while.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent_answers.h"
#include "flash_event_totals.h"

constexpr unsigned AGENT_WAIT_LIMIT_S = 1;

// The cards that are known, in order of their slots; none when no agent answers.
std::optional<std::vector<chassis_module>> ask_for_modules();

// These ask the agent of one card; node is that of the card's daemon.
std::optional<card_facts_told> ask_for_card(std::uint32_t node);
std::optional<std::string> ask_for_version(std::uint32_t node, unsigned instance);
std::optional<std::vector<flash_event>> ask_for_events(std::uint32_t node, unsigned instance,
                                                       std::uint64_t after_sequence);
std::optional<flash_event_totals> ask_for_totals(std::uint32_t node, unsigned instance);

// The module locks that are held, in order of their node ids: each agent serves its own. None when no agent answers.
std::optional<std::vector<chassis_module_lock_holder>> ask_for_locks();

// How the last programming of each module has ended, in order of the modules; none when no agent answers.
std::optional<std::vector<told_result>> ask_for_results();
