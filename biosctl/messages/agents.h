// What the agents of the cards say (agent_messages.h). A card whose agent lets three requests wait for
// AGENT_WAIT_LIMIT_S each has said nothing, and is not asked again for a while.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "agent_answers.h"
#include "client.h"
#include "flash_event_totals.h"

constexpr unsigned AGENT_WAIT_LIMIT_S = 1;
constexpr unsigned WORK_WAIT_LIMIT_S = 20; // a large image on a slow card takes some seconds

// One request, and what came of it: its own answer or, when its last attempt has failed, why there is none.
request_answer ask_agent(std::uint32_t node, std::uint32_t opcode, std::span<const std::uint8_t> body,
                         unsigned wait_limit_s = AGENT_WAIT_LIMIT_S);

// Gives up the endpoint by which this process asks; the next question binds another. For forked processes, which
// end without what ends a program: their address would be left behind.
void leave_agents();

// The cards that are known, in order of their slots; none when no agent answers.
std::optional<std::vector<chassis_module>> ask_for_modules();

// These ask the agent of one card; node is that of the card's daemon.
std::optional<card_facts_told> ask_for_card(std::uint32_t node);
std::optional<told_outcome> ask_for_outcome(std::uint32_t node);
// What the agent of a node knows of the end of an event log of another card.
std::optional<told_head> ask_for_head(std::uint32_t node, unsigned slot, unsigned instance);
request_answer ask_for_versions(std::uint32_t node); // payload for decode_versions
std::optional<std::string> ask_for_version(std::uint32_t node, unsigned instance);
std::optional<std::vector<flash_event>> ask_for_events(std::uint32_t node, unsigned instance,
                                                       std::uint64_t after_sequence);
// What of the events' log is not given out as events.
std::optional<std::vector<told_log_fault>> ask_for_log_faults(std::uint32_t node, unsigned instance);
std::optional<flash_event_totals> ask_for_totals(std::uint32_t node, unsigned instance);

// Which image is asked for.
enum class image_place {
    tree,  // of the system software on the card
    uri,   // in the system image that it names
    ready, // in the file that a card takes which does not unpack
};
struct image_question {
    std::uint32_t card_id = 0; // whose image
    image_place place = image_place::tree;
    std::string uri = {};
    bool with_signature = false; // it is checked too, which takes its time
};
// An image, or the status of the agent's answer that says why there is none; a status of 0 then: it has not
// answered.
struct image_reply {
    std::optional<told_image> image = {};
    std::uint32_t status = 0;
    std::string why_not = {}; // for people
};
image_reply ask_for_image(std::uint32_t node, const image_question &question);

// The same in two steps, for a process that only asks.
request_answer request_image(std::uint32_t node, const image_question &question,
                             unsigned wait_limit_s = WORK_WAIT_LIMIT_S);
image_reply image_reply_of(const request_answer &answer);

// Of the first bytes of a flash; the status as in image_reply.
struct flash_digest_reply {
    std::optional<told_flash_digest> digest = {};
    std::uint32_t status = 0;
};
flash_digest_reply ask_for_digest(std::uint32_t node, unsigned instance, std::uint64_t bytes);

// The module locks that are held, in order of their node ids: each agent serves its own. None when no agent
// answers.
std::optional<std::vector<chassis_module_lock_holder>> ask_for_locks();

// Locks a module for an operator, or frees it again, at the agent that serves its lock; node is that of the
// module's daemon. The status of the agent's answer; none: no agent has answered.
struct lock_operator {
    std::string user;
    std::string host;
};
struct operator_lock_reply {
    std::optional<std::uint32_t> status = {};
    std::optional<chassis_module_lock_holder> lock = {}; // with AGENT_OK of a lock
};
operator_lock_reply ask_for_operator_lock(std::uint32_t node, const lock_operator &who, std::uint32_t seconds);
operator_lock_reply ask_for_operator_unlock(std::uint32_t node, const lock_operator &who, bool force);

// How the last programming of each module has ended, in order of the modules; none when no agent answers.
std::optional<std::vector<told_result>> ask_for_results();
