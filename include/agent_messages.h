// Messages of a card's agent, in order of their opcodes: requests and, from AGENT_OPC_LOCK on, messages without an
// answer by the transport. A request's body begins MTS_REQUEST_HEADER_BYTES into its payload. Numbers are in network byte
// order, texts zero-padded and not terminated when they fill their field; times are UTC, "2026-01-31T23:59:59Z".
//
// An answer with a status that is not 0 has no payload.
#pragma once

#include <cstddef>
#include <cstdint>

#include "big_endian.h"

constexpr std::uint32_t AGENT_SAP = 1011; // service access point of the agent, on the node of its card's daemon

enum agent_opcode : std::uint32_t {
    AGENT_OPC_GET_CHASSIS = 4810, // the cards of the chassis, as this card knows them
    AGENT_OPC_GET_CARD = 4811,    // this card and its flashes
    AGENT_OPC_GET_VERSION = 4812, // version of the BIOS in a flash
    AGENT_OPC_GET_EVENTS = 4813,  // events of a flash
    AGENT_OPC_GET_TOTALS = 4814,  // what the events of a flash add up to
    AGENT_OPC_GET_LOCKS = 4815,   // holders of the module locks that this agent serves
    AGENT_OPC_GET_RESULTS = 4816, // how the last programming of each module has ended
    AGENT_OPC_GET_IMAGE = 4817,   // the image that this card has for a card
    AGENT_OPC_GET_DIGEST = 4818,  // digest of what a flash holds

    AGENT_OPC_LOCK = 4830,        // wants a module lock, or has it and renews it
    AGENT_OPC_UNLOCK = 4831,      // gives a module lock back, or does not have it
    AGENT_OPC_LOCK_CHECK = 4832,  // asks an agent whether a process of its card still has a module lock
    AGENT_OPC_LOCK_ANSWER = 4833, // what became of an AGENT_OPC_LOCK or AGENT_OPC_UNLOCK
};

enum agent_status : std::uint32_t {
    AGENT_OK = 0,
    AGENT_ERR_REQUEST = 0x40720001,   // the body is not one of this request
    AGENT_ERR_FLASH = 0x40720002,     // the card has no such flash
    AGENT_ERR_UNREADABLE = 0x40720003, // what was asked for cannot be read; the card's disk or memory
    AGENT_ERR_LOCK_HELD = 0x40720004, // another process has the module lock
    AGENT_ERR_LOCK_FREE = 0x40720005, // nobody has the module lock
    AGENT_ERR_LOCK_AGENT = 0x40720006, // the agent of the module's card does not answer
    AGENT_ERR_BUSY = 0x40720007,       // as many such requests as the agent serves at once are being served

    // Why there is no image:
    AGENT_ERR_IMAGE_CARD = 0x40720020,   // no BIOS is known for cards of this id
    AGENT_ERR_IMAGE_URI = 0x40720021,    // the URI names no path of this card, or one that no command may be given
    AGENT_ERR_IMAGE_FILE = 0x40720022,   // there is no such file
    AGENT_ERR_IMAGE_MEMBER = 0x40720023, // the system image holds no BIOS for this card, or is none
    AGENT_ERR_IMAGE_PACKED = 0x40720024, // the file was not made by gzip
    AGENT_ERR_IMAGE_CUT = 0x40720025,    // the file is cut short or damaged
    AGENT_ERR_IMAGE_SIZE = 0x40720026,   // the image is larger than AGENT_IMAGE_BYTES_MAX
    AGENT_ERR_IMAGE_SPACE = 0x40720027   // there is no space to unpack it
};

constexpr std::size_t AGENT_TIME_BYTES = 24;
constexpr std::size_t AGENT_DIGEST_BYTES = 32; // SHA-256
constexpr std::size_t AGENT_URI_BYTES = 228;   // as in the request to program
constexpr std::size_t AGENT_VERSION_BYTES = 128;
constexpr std::uint64_t AGENT_IMAGE_BYTES_MAX = std::uint64_t{64} << 20;

// AGENT_OPC_GET_CHASSIS: no body. The answer is agent_chassis_t and a module for each of its count.
struct agent_chassis_t {
    be32 own_slot;
    be32 count;
};
static_assert(sizeof(agent_chassis_t) == 8);

struct agent_module_t {
    be32 slot;
    be32 kind;      // 1 or 4 supervisor, else another card
    be32 card_id;   // 0: not known
    be32 sup_state; // SYSMGR_SUP_STATE_ACTIVE, SYSMGR_SUP_STATE_STANDBY, else neither
};
static_assert(sizeof(agent_module_t) == 16);

// AGENT_OPC_GET_CARD: no body. The answer is agent_card_t and a flash for each of its flash_count.
struct agent_card_t {
    be32 slot;
    be32 serves; // 1: its daemon's endpoint is bound
    be32 flash_count;
};
static_assert(sizeof(agent_card_t) == 12);

enum agent_flash_state : std::uint32_t {
    AGENT_FLASH_MARKED = 1,       // its programming was begun, and it was not found equal to the image since
    AGENT_FLASH_HAS_WRITER = 2,   // a process changes it, or has done so and has not ended yet
    AGENT_FLASH_HAS_PROGRESS = 4, // phase to since are those of the writer, or of the last there was
};

struct agent_flash_t {
    be32 instance; // 0 primary, 1 alternate
    be32 size_bytes;
    be32 sector_bytes;
    be32 state;   // bits of agent_flash_state
    be32 phase;   // of bios_programming_phase
    be32 percent; // of the attempt
    be32 attempt; // 0: none in particular
    be32 pid;     // of the writer, as the card sees it
    char since[AGENT_TIME_BYTES];
    be64 erases;    // of sectors, over the life of the flash
    be64 log_file;  // these two change whenever the flash's events do
    be64 log_bytes; //
};
static_assert(sizeof(agent_flash_t) == 80);
static_assert(offsetof(agent_flash_t, erases) == 56);

// A request about one flash.
struct agent_flash_req_t {
    be32 instance;
};
static_assert(sizeof(agent_flash_req_t) == 4);

// AGENT_OPC_GET_VERSION: body agent_flash_req_t. The answer is the text, read from the flash just now; empty when the
// flash has none that can be read.

// AGENT_OPC_GET_EVENTS: body agent_events_req_t. The answer is the text of the events behind a sequence number, the oldest first: lines as
// flash_event_format gives them.
struct agent_events_req_t {
    be32 instance;
    be64 after_sequence;
};
static_assert(sizeof(agent_events_req_t) == 12);

// AGENT_OPC_GET_TOTALS: body agent_flash_req_t. The answer is the text that flash_event_totals_format gives.

// AGENT_OPC_GET_LOCKS: no body. The answer is a record for each lock that is held and that this agent serves, in order of
// the node ids.
struct agent_lock_t {
    be32 node_id;
    be32 slot;   // of the holder
    be32 pid;    // of the holder, as it sees itself
    be32 owner;  // id of the kind of owner
    be32 reason; // reason code of the request
    char since[AGENT_TIME_BYTES];
};
static_assert(sizeof(agent_lock_t) == 44);

// AGENT_OPC_GET_RESULTS: no body. The answer is a record for each module whose programming's end was told to
// whoever listens, in order of the modules.
struct agent_result_t {
    be32 module;
    be32 result;
    be32 reported_by_slot; // whose daemon has told it
    char time[AGENT_TIME_BYTES];
};
static_assert(sizeof(agent_result_t) == 36);

enum agent_image_source : std::uint32_t {
    AGENT_IMAGE_OF_TREE = 1, // the image tree of the system software
    AGENT_IMAGE_OF_URI = 2,  // the system image that a URI names
    AGENT_IMAGE_READY = 3,   // the file that a card takes which programs without unpacking
};

// AGENT_OPC_GET_IMAGE: body agent_image_req_t. The answer is agent_image_t; the image is unpacked for it, in a place of the
// agent's own.
struct agent_image_req_t {
    be32 card_id; // whose image
    be32 source;  // of agent_image_source
    char uri[AGENT_URI_BYTES];
};
static_assert(sizeof(agent_image_req_t) == 236);

struct agent_image_t {
    be64 size_bytes; // unpacked
    std::uint8_t sha256[AGENT_DIGEST_BYTES];
    char version[AGENT_VERSION_BYTES]; // empty: none can be read
};
static_assert(sizeof(agent_image_t) == 168);
static_assert(offsetof(agent_image_t, version) == 40);

// AGENT_OPC_GET_DIGEST: body agent_flash_digest_req_t. The answer is agent_flash_digest_t, read from the flash just now.
struct agent_flash_digest_req_t {
    be32 instance;
    be64 bytes; // how many, from the beginning
};
static_assert(sizeof(agent_flash_digest_req_t) == 12);

struct agent_flash_digest_t {
    std::uint8_t sha256[AGENT_DIGEST_BYTES]; // of these bytes
    be32 rest_is_erased;                     // 1: behind them there are erased bytes only
    be32 state;                              // bits of agent_flash_state, at any time while the flash was read
};
static_assert(sizeof(agent_flash_digest_t) == 40);

// Module locks. A process holds a lock through the agent of its own card; that one holds it at the agent of the module's
// card, and renews it there. Each message may be sent again: the receiver does the same as the first time. The ids of an
// agent grow, also from one of its lives to the next: what it says with a lower id than before was overtaken on the way.

// AGENT_OPC_LOCK: of a process to its own card's agent, and of an agent to another one. A process marks what it wants in
// its card's lock file first (module_lock_file.h): what is not marked there is not wanted any more.
struct agent_lock_msg_t {
    be64 id; // chosen by the sender, told back in the answer
    agent_lock_t lock;
};
static_assert(sizeof(agent_lock_msg_t) == 52);
static_assert(offsetof(agent_lock_msg_t, lock) == 8);

// AGENT_OPC_UNLOCK and AGENT_OPC_LOCK_CHECK. A check is answered by AGENT_OPC_LOCK when the lock is still held, by
// AGENT_OPC_UNLOCK when it is not, and not at all while that is being found out.
struct agent_lock_node_t {
    be64 id;
    be32 node_id;
};
static_assert(sizeof(agent_lock_node_t) == 12);

// AGENT_OPC_LOCK_ANSWER: whose the lock is now.
struct agent_lock_answer_t {
    be64 id;
    be32 node_id;
    be32 status; // AGENT_OK: the asker's; AGENT_ERR_LOCK_HELD, AGENT_ERR_LOCK_FREE, AGENT_ERR_LOCK_AGENT;
                 // AGENT_ERR_REQUEST: the asker has not marked that it wants it
};
static_assert(sizeof(agent_lock_answer_t) == 16);
