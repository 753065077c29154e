// What the answers of agents say (agent_messages.h): an answer that is not understood is none. Pure functions.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "agent_messages.h"
#include "chassis_module_lock.h"
#include "flash_event.h"
#include "flash_event_log.h"
#include "flash_progress_file.h"
#include "sha256.h"

// A card of the chassis, as its cards know it.
struct chassis_module {
    unsigned slot = 0;
    std::uint32_t kind = 0;
    std::uint32_t card_id = 0;   // 0: not known
    std::uint32_t sup_state = 0; // SYSMGR_SUP_STATE_ACTIVE, SYSMGR_SUP_STATE_STANDBY, else neither
};

struct card_flash {
    unsigned instance = 0;
    std::uint32_t size_bytes = 0;
    std::uint32_t sector_bytes = 0;
    std::uint64_t erases = 0;
    bool is_spare = false; // the card's next start does not need it
    flash_activity activity = {};
    flash_event_log_state log = {};
};

struct card_facts_told {
    bool serves = false;               // its daemon's endpoint is bound
    bool is_silent = false;            // likewise, and it has not looked for messages for long
    std::uint32_t programming_pid = 0; // programs on the card, or has it done by another one; 0: none is known
    std::string serves_since = {};     // UTC, "2026-01-31T23:59:59Z"; empty: not known
    std::vector<card_flash> flashes = {};
};

// The version in a flash; empty: none could be read.
struct told_flash_version {
    unsigned instance = 0;
    bool marked = false;     // its programming was begun, and it was not found equal to the image since
    bool has_writer = false; // a process changes it, or has done so and has not ended yet
    bool is_spare = false;   // the card's next start does not need it
    std::string version = {};
};

// The versions of a card.
struct told_versions {
    bool serves = false;                       // its daemon's endpoint is bound
    std::optional<unsigned> started_from = {}; // instance of the flash that it has booted from
    std::string running = {};                  // that this flash held when the card booted; empty: not known
    std::vector<told_flash_version> flashes = {};
};

// How a programming has ended, as a supervisor has told whoever listened.
struct told_result {
    unsigned module = 0;
    std::uint32_t code = 0;
    unsigned reported_by_slot = 0;
    std::string time; // UTC, "2026-01-31T23:59:59Z"
};

// What the last result of a card's own programming means.
struct told_outcome {
    agent_outcome outcome = AGENT_OUTCOME_NONE;
    std::string time;       // of the result, as in told_result
    std::string ended = {}; // when the work on the flash has ended; empty: not known
};

// The last event of a flash, as another card was told it.
struct told_head {
    std::uint64_t sequence = 0;
    std::string chain; // 64 hexadecimal digits
};

// Lines of a flash's event log that are not given out as events, or events that are not there.
struct told_log_fault {
    agent_log_fault fault = AGENT_LOG_NO_EVENT;
    bool in_older = false; // in the log that was turned over
    std::uint64_t count = 0;
    std::uint64_t line = 0;     // of the first
    std::uint64_t sequence = 0; // of the first event, or of the last one before those that were lost
};

// An image, as the card that has it tells of it.
struct told_image {
    std::uint64_t size_bytes = 0;
    sha256_digest digest = {};
    std::string version = {};        // empty: none can be read
    std::uint64_t missing_bytes = 0; // of room on the card's boot flash, where a programming unpacks it
    agent_image_t record = {};       // all that the card has told, for an order
};

// The beginning of a flash, as read just now.
struct told_flash_digest {
    sha256_digest digest = {};
    bool rest_is_erased = false;
    bool marked = false;     // its programming was begun, and it was not found equal to the image since
    bool has_writer = false; // a process changes it, or has done so and has not ended yet
};

// A file that was delivered to a card.
struct delivered_file {
    std::string name;
    std::uint64_t size_bytes = 0;
    sha256_digest sha256 = {};
};

// A delivery or a copy that has begun.
struct begun_transfer {
    std::uint64_t id = 0;
    std::uint64_t size_bytes = 0;
};

using answer_payload = std::span<const std::uint8_t>;

// The modules in order of their slots, each once.
std::optional<std::vector<chassis_module>> decode_modules(answer_payload payload);
std::optional<card_facts_told> decode_card(answer_payload payload);
std::optional<told_versions> decode_versions(answer_payload payload);
std::optional<std::vector<chassis_module_lock_holder>> decode_locks(answer_payload payload);
std::optional<std::vector<told_result>> decode_results(answer_payload payload);
std::optional<told_outcome> decode_outcome(answer_payload payload);
std::optional<told_head> decode_head(answer_payload payload);
std::optional<std::vector<told_log_fault>> decode_log_faults(answer_payload payload);
std::optional<told_image> decode_image(answer_payload payload);
std::optional<told_flash_digest> decode_flash_digest(answer_payload payload);

// The files in order of their names, each once and with a name and a size that it may have.
std::optional<std::vector<delivered_file>> decode_files(answer_payload payload);
std::optional<begun_transfer> decode_transfer(answer_payload payload);
std::optional<sha256_digest> decode_digest(answer_payload payload);

// Lines that are no events, or hold what cannot be printed, are passed over.
std::vector<flash_event> decode_events(std::string_view lines);
