// Messages of a card's agent, in order of their opcodes: requests and, from AGENT_OPC_LOCK on, messages without an
// answer by the transport. A request's body begins MTS_REQUEST_HEADER_BYTES into its payload. Numbers are in
// network byte order, texts zero-padded and not terminated when they fill their field; times are UTC,
// "2026-01-31T23:59:59Z".
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

    AGENT_OPC_PUT_FILE = 4820,    // begins the delivery of a file to the card
    AGENT_OPC_PUT_PIECE = 4821,   // the next bytes of it
    AGENT_OPC_PUT_END = 4822,     // gives the file its name
    AGENT_OPC_GET_FLASH = 4823,   // begins a copy of a flash
    AGENT_OPC_GET_FILE = 4824,    // begins a copy of a delivered file
    AGENT_OPC_GET_PIECE = 4825,   // the next bytes of it
    AGENT_OPC_GET_END = 4826,     // the digest of what was given
    AGENT_OPC_LIST_FILES = 4827,  // the delivered files
    AGENT_OPC_REMOVE_FILE = 4828, // removes a delivered file

    AGENT_OPC_LOCK = 4830,        // wants a module lock, or has it and renews it
    AGENT_OPC_UNLOCK = 4831,      // gives a module lock back, or does not have it
    AGENT_OPC_LOCK_CHECK = 4832,  // asks an agent whether a process of its card still has a module lock
    AGENT_OPC_LOCK_ANSWER = 4833, // what became of an AGENT_OPC_LOCK or AGENT_OPC_UNLOCK

    AGENT_OPC_ORDER_FLASH = 4840,  // says what is to be written into a flash
    AGENT_OPC_RENEW_ORDER = 4841,  // whoever has ordered is still there
    AGENT_OPC_END_ORDER = 4842,    // nobody will write what was ordered, or what was cancelled
    AGENT_OPC_CANCEL_ORDER = 4843, // takes an order back that nobody has begun
    AGENT_OPC_GET_ORDER = 4844,    // the order of a flash, or the last there was

    AGENT_OPC_VERIFY_IMAGE = 4850,   // checks the signature of an image in a file of the card
    AGENT_OPC_GET_VERSIONS = 4860,   // the versions in the flashes of this card, and the one that runs
    AGENT_OPC_GET_OUTCOME = 4861,    // what the last result that was told of this card's programming means
    AGENT_OPC_EVENT_HEAD = 4862,     // tells the last event of a flash; no request
    AGENT_OPC_GET_HEAD = 4863,       // the last event of another card's flash that this card was told
    AGENT_OPC_GET_LOG_FAULTS = 4864, // what of a flash's event log is not given out as an event

    AGENT_OPC_CARD_IS_THERE = 4865, // tells of the own card: agent_module_t; no request

    AGENT_OPC_OPERATOR_LOCK = 4870,   // locks a module for an operator
    AGENT_OPC_OPERATOR_UNLOCK = 4871, // frees a module that is locked for an operator
};

enum agent_status : std::uint32_t {
    AGENT_OK = 0,
    AGENT_ERR_REQUEST = 0x40720001,    // the body is not one of this request
    AGENT_ERR_FLASH = 0x40720002,      // the card has no such flash
    AGENT_ERR_UNREADABLE = 0x40720003, // what was asked for cannot be read; the card's disk or memory
    AGENT_ERR_LOCK_HELD = 0x40720004,  // another process has the module lock
    AGENT_ERR_LOCK_FREE = 0x40720005,  // nobody has the module lock
    AGENT_ERR_LOCK_AGENT = 0x40720006, // the agent of the module's card does not answer
    AGENT_ERR_BUSY = 0x40720007,       // as many such requests as the agent serves at once are being served
    AGENT_ERR_PROGRAMMED = 0x40720008, // a process changes a flash of the module

    AGENT_ERR_FILE_NAME = 0x40720010,      // the name is not one that a delivered file may have
    AGENT_ERR_FILE_SIZE = 0x40720011,      // the file has no bytes, or more than AGENT_FILE_BYTES_MAX
    AGENT_ERR_NO_SPACE = 0x40720012,       // the card's disk has no room for the file or the record
    AGENT_ERR_TOO_MANY_FILES = 0x40720013, // AGENT_FILES_MAX files are there
    AGENT_ERR_NO_FILE = 0x40720014,        // no file of this name was delivered
    AGENT_ERR_DIGEST = 0x40720015,         // the bytes do not have the digest that the file should have
    AGENT_ERR_TRANSFER = 0x40720016,       // the sender has no such transfer, or it has ended
    AGENT_ERR_TRANSFERS = 0x40720017,      // AGENT_TRANSFERS_MAX transfers are open
    AGENT_ERR_NAME_BUSY = 0x40720018,      // another sender delivers a file of this name
    AGENT_ERR_OFFSET = 0x40720019,         // the piece is neither the next one nor the last one again
    AGENT_ERR_INCOMPLETE = 0x4072001a,     // the transfer was ended before its last piece
    AGENT_ERR_FLASH_CHANGED = 0x4072001b,  // a process changes the flash, or has done so since the transfer began

    // Why there is no image:
    AGENT_ERR_IMAGE_CARD = 0x40720020,   // no BIOS is known for cards of this id
    AGENT_ERR_IMAGE_URI = 0x40720021,    // the URI names no path of this card, or one that no command may be given
    AGENT_ERR_IMAGE_FILE = 0x40720022,   // there is no such regular file
    AGENT_ERR_IMAGE_MEMBER = 0x40720023, // the system image holds no BIOS for this card, or is none
    AGENT_ERR_IMAGE_PACKED = 0x40720024, // the file was not made by gzip
    AGENT_ERR_IMAGE_CUT = 0x40720025,    // the file is cut short or damaged
    AGENT_ERR_IMAGE_SIZE = 0x40720026,   // the image is larger than the card's flash, or than AGENT_IMAGE_BYTES_MAX
    AGENT_ERR_IMAGE_SPACE = 0x40720027,  // there is no space to unpack it
    AGENT_ERR_IMAGE_EMPTY = 0x40720028,  // the image has no bytes

    // Why the signature of an image does not count:
    AGENT_ERR_NOT_SIGNED = 0x40720030,  // the image has no manifest, or one without a signature
    AGENT_ERR_KEY_UNKNOWN = 0x40720031, // the card has no key of the id that the manifest names
    AGENT_ERR_KEY_REVOKED = 0x40720032, // the key was revoked
    AGENT_ERR_SIGNATURE = 0x40720033,   // the signature is not that of the image
    AGENT_ERR_MANIFEST = 0x40720034,    // the manifest is damaged, or the image has two
    AGENT_ERR_KEYS = 0x40720035,        // the card's keys cannot be read, or others may have written them

    AGENT_ERR_NO_ORDER = 0x40720050,    // there is no such order, or it has ended
    AGENT_ERR_ORDER_LIVE = 0x40720051,  // the flash has an order that has not ended
    AGENT_ERR_PROGRAMMING = 0x40720052, // a programming is under way on the card
    AGENT_ERR_NO_ROW = 0x40720053,      // the daemon programs other flashes of the card only
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
    be32 card_id;   // 0: not known
    be32 family;    // of the table of BIOS flashes; 0: the card has none
    be32 kind;      // as in agent_module_t
    be32 sup_state; // as in agent_module_t
    be32 serves;    // 1: its daemon's endpoint is bound; 2: likewise, and it has not looked for messages for 12 s
    be32 flash_count;
    be32 programming_pid; // process that programs on this card, or has it done by another one; 0: none is known
    char serves_since[AGENT_TIME_BYTES]; // empty: it does not serve, or the transport cannot tell
};
static_assert(sizeof(agent_card_t) == 56);
static_assert(offsetof(agent_card_t, serves_since) == 32);

enum agent_flash_state : std::uint32_t {
    AGENT_FLASH_MARKED = 1,       // its programming was begun, and it was not found equal to the image since
    AGENT_FLASH_HAS_WRITER = 2,   // a process changes it, or has done so and has not ended yet
    AGENT_FLASH_HAS_PROGRESS = 4, // phase to since are those of the writer, or of the last there was
    AGENT_FLASH_SPARE = 8,        // the card's next start does not need it
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

// AGENT_OPC_GET_VERSION: body agent_flash_req_t. The answer is the text, read from the flash just now; empty when
// the flash has none that can be read, is marked, or is being changed.

// AGENT_OPC_GET_VERSIONS: no body. The answer is agent_versions_t and an agent_flash_version_t for each of its
// flash_count.
struct agent_versions_t {
    be32 slot;
    be32 serves;                       // 1: the endpoint of its daemon is bound
    be32 started_from;                 // instance of the flash that the card has booted from; AGENT_FLASH_UNKNOWN
    be32 flash_count;                  //
    char running[AGENT_VERSION_BYTES]; // that this flash held when the card booted; empty: not known
};
static_assert(sizeof(agent_versions_t) == 144);
static_assert(offsetof(agent_versions_t, running) == 16);

constexpr std::uint32_t AGENT_FLASH_UNKNOWN = 0xffffffff;

struct agent_flash_version_t {
    be32 instance;
    be32 state;                        // bits of agent_flash_state, at any time while the flash was read
    char version[AGENT_VERSION_BYTES]; // as in the answer to AGENT_OPC_GET_VERSION
};
static_assert(sizeof(agent_flash_version_t) == 136);

// AGENT_OPC_GET_EVENTS: body agent_events_req_t. The answer is the text of the events behind a sequence number, the
// oldest first: lines as flash_event_format gives them.
struct agent_events_req_t {
    be32 instance;
    be64 after_sequence;
};
static_assert(sizeof(agent_events_req_t) == 12);

// AGENT_OPC_GET_LOG_FAULTS: body agent_flash_req_t. The answer is an agent_log_fault_t for each kind of fault in
// each file, in this order of the files and kinds; AGENT_LOG_LOST and AGENT_LOG_LOST_FULL come last.
enum agent_log_fault : std::uint32_t {
    AGENT_LOG_NO_EVENT = 1,     // lines that are no events
    AGENT_LOG_OTHER_FLASH = 2,  // events of another flash
    AGENT_LOG_TWICE = 3,        // events whose number was there before
    AGENT_LOG_OUT_OF_ORDER = 4, // events behind one with a higher number
    AGENT_LOG_UNFINISHED = 5,   // the end of the file is no whole line
    AGENT_LOG_LOST = 6,         // events behind the last one that could not be written
    AGENT_LOG_LOST_FULL = 7,    // likewise, because the disk was full
};

struct agent_log_fault_t {
    be32 fault;    // of agent_log_fault
    be32 in_older; // 1: in the log that was turned over
    be64 count;    // of lines or events
    be64 line;     // in the file, of the first; 0: of none
    be64 sequence; // of the first event, or of the last before those that were lost; 0: it has none
};
static_assert(sizeof(agent_log_fault_t) == 32);
constexpr std::size_t AGENT_LOG_FAULTS_MAX = 11;

// The head of a flash's event log. AGENT_OPC_EVENT_HEAD: an agent tells the supervisors in other slots that of its
// own card. AGENT_OPC_GET_HEAD: body agent_head_req_t. The answer is what this card was told last; empty when
// nothing was.
struct agent_event_head_t {
    be32 slot; // whose flash
    be32 instance;
    be64 sequence;                          // of its last event
    std::uint8_t chain[AGENT_DIGEST_BYTES]; // its link
};
static_assert(sizeof(agent_event_head_t) == 48);

struct agent_head_req_t {
    be32 slot;
    be32 instance;
};
static_assert(sizeof(agent_head_req_t) == 8);

// AGENT_OPC_GET_TOTALS: body agent_flash_req_t. The answer is the text that flash_event_totals_format gives.

// AGENT_OPC_GET_LOCKS: no body. The answer is an agent_held_lock_t for each lock that is held and that this agent
// serves, in order of the node ids.
struct agent_lock_t {
    be32 node_id;
    be32 slot;   // of the holder
    be32 pid;    // of the holder, as it sees itself
    be32 owner;  // id of the kind of owner
    be32 reason; // reason code of the request
    char since[AGENT_TIME_BYTES];
};
static_assert(sizeof(agent_lock_t) == 44);

constexpr std::size_t AGENT_USER_BYTES = 32; // with a NUL
constexpr std::size_t AGENT_HOST_BYTES = 64; // likewise

struct agent_held_lock_t {
    agent_lock_t lock;            // an operator's has slot, pid and owner 0
    char user[AGENT_USER_BYTES];  // of an operator; empty: a process has the lock
    char host[AGENT_HOST_BYTES];  // where the operator has asked for it
    char until[AGENT_TIME_BYTES]; // when an operator's ends by itself
};
static_assert(sizeof(agent_held_lock_t) == 164);
static_assert(offsetof(agent_held_lock_t, user) == 44);
static_assert(offsetof(agent_held_lock_t, host) == 76);
static_assert(offsetof(agent_held_lock_t, until) == 140);

// AGENT_OPC_GET_RESULTS: no body. The answer is a record for each module whose programming's end was told to
// whoever listens, in order of the modules.
struct agent_result_t {
    be32 module;
    be32 result;
    be32 reported_by_slot; // whose daemon has told it
    char time[AGENT_TIME_BYTES];
};
static_assert(sizeof(agent_result_t) == 36);

enum agent_outcome : std::uint32_t {
    AGENT_OUTCOME_NONE = 0,           // no result was told
    AGENT_OUTCOME_VERIFIED = 1,       // 0, and the card's log says that a flash was found equal to the image
    AGENT_OUTCOME_WITHOUT_RESULT = 2, // 0, and it does not: a process that is killed leaves 0 behind
    AGENT_OUTCOME_FAILED = 3,         // another result than 0
};

// AGENT_OPC_GET_OUTCOME: no body. The answer is agent_outcome_t: what a result of 0 means, only the card itself
// knows.
struct agent_outcome_t {
    be32 outcome; // of agent_outcome
    agent_result_t result;
    char ended[AGENT_TIME_BYTES]; // when the work on the flash has ended, by the card's log; empty: not known
};
static_assert(sizeof(agent_outcome_t) == 64);
static_assert(offsetof(agent_outcome_t, result) == 4);
static_assert(offsetof(agent_outcome_t, ended) == 40);

enum agent_image_source : std::uint32_t {
    AGENT_IMAGE_OF_TREE = 1, // the image tree of the system software
    AGENT_IMAGE_OF_URI = 2,  // the system image that a URI names
    AGENT_IMAGE_READY = 3,   // the file that a card takes which programs without unpacking
};

// AGENT_OPC_GET_IMAGE: body agent_image_req_t. The answer is agent_image_t; the image is unpacked for it, in a
// place of the agent's own.
struct agent_image_req_t {
    be32 card_id;        // whose image
    be32 source;         // of agent_image_source
    be32 with_signature; // 1: it is checked, which takes as long again
    char uri[AGENT_URI_BYTES];
};
static_assert(sizeof(agent_image_req_t) == 240);
static_assert(offsetof(agent_image_req_t, uri) == 12);

enum agent_manifest_state : std::uint32_t {
    AGENT_MANIFEST_NONE = 0,
    AGENT_MANIFEST_INTACT = 1,
    AGENT_MANIFEST_DAMAGED = 2,
};

constexpr std::size_t AGENT_MANIFEST_BYTES = 256;
constexpr std::uint32_t AGENT_SIGNATURE_NOT_CHECKED = 0xffffffff;

struct agent_image_t {
    be64 size_bytes; // unpacked
    std::uint8_t sha256[AGENT_DIGEST_BYTES];
    char version[AGENT_VERSION_BYTES];           // empty: none can be read
    be32 manifest_state;                         // of agent_manifest_state
    be32 signature;                              // status that AGENT_OPC_VERIFY_IMAGE has for it on the same card
    std::uint8_t manifest[AGENT_MANIFEST_BYTES]; // of one that is intact: its record in the image; else 0
    be64 missing_bytes; // what the card's boot flash lacks for a programming to unpack it; 0: nothing
};
static_assert(sizeof(agent_image_t) == 440);
static_assert(offsetof(agent_image_t, version) == 40);
static_assert(offsetof(agent_image_t, manifest) == 176);
static_assert(offsetof(agent_image_t, missing_bytes) == 432);

// AGENT_OPC_GET_DIGEST: body agent_flash_digest_req_t. The answer is agent_flash_digest_t, read from the flash just
// now.
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

// Module locks. A process holds a lock through the agent of its own card; that one holds it at the agent of the
// module's card, and renews it there. Each message may be sent again: the receiver does the same as the first time.
// The ids of an agent grow, also from one of its lives to the next: what it says with a lower id than before was
// overtaken on the way.

// AGENT_OPC_LOCK: of a process to its own card's agent, and of an agent to another one. A process marks what it
// wants in its card's lock file first (module_lock_file.h): what is not marked there is not wanted any more.
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

// Locks of operators. They are asked for at the agent of the module's card, or at any agent when that card has
// none. No process holds them: they last until they are given back or their time is over, also when the agent is
// started again. While a module is locked for an operator no process gets its lock.

constexpr std::uint32_t AGENT_LOCK_SECONDS_MAX = 7 * 24 * 60 * 60;

// AGENT_OPC_OPERATOR_LOCK. The answer is an agent_held_lock_t; the same operator's lock begins anew.
// AGENT_ERR_LOCK_HELD: a process or another operator has the lock; AGENT_ERR_PROGRAMMED; AGENT_ERR_LOCK_AGENT:
// another agent serves it; AGENT_ERR_REQUEST: also for texts that are empty, not terminated or have other than
// printable characters, or blanks.
struct agent_operator_lock_req_t {
    be32 node_id; // of the module, as its daemon's node
    be32 seconds; // 1 to AGENT_LOCK_SECONDS_MAX
    char user[AGENT_USER_BYTES];
    char host[AGENT_HOST_BYTES];
};
static_assert(sizeof(agent_operator_lock_req_t) == 104);

// AGENT_OPC_OPERATOR_UNLOCK. No answer but the status: AGENT_ERR_LOCK_FREE; AGENT_ERR_LOCK_HELD: a process has the
// lock, or another operator and force is 0.
struct agent_operator_unlock_req_t {
    be32 node_id;
    be32 force; // 1: also that of another operator
    char user[AGENT_USER_BYTES];
    char host[AGENT_HOST_BYTES];
};
static_assert(sizeof(agent_operator_unlock_req_t) == 104);

// Files, in pieces. A delivery is AGENT_OPC_PUT_FILE, AGENT_OPC_PUT_PIECE for each piece, AGENT_OPC_PUT_END; a copy
// is AGENT_OPC_GET_FLASH or AGENT_OPC_GET_FILE, AGENT_OPC_GET_PIECE for each piece, AGENT_OPC_GET_END. Pieces come
// in order. Each request may be sent again when its answer was lost: it is answered alike, and changes nothing. A
// begin that is repeated after the first piece begins anew.
//
// A transfer belongs to the endpoint that has begun it. It ends with an END, whatever that is answered; with a
// piece that could not be kept or given for another reason than its offset; when the endpoint's process has ended;
// and after AGENT_TRANSFER_SILENCE_S without a request. A file that did not arrive whole is never there under its
// name.

constexpr std::size_t AGENT_FILE_NAME_BYTES = 64;                // with a NUL
constexpr std::size_t AGENT_PIECE_BYTES = std::size_t{56} << 10; // a piece has at most so many
constexpr std::uint64_t AGENT_FILE_BYTES_MAX = std::uint64_t{64} << 20;
constexpr std::size_t AGENT_FILES_MAX = 64;
constexpr std::size_t AGENT_TRANSFERS_MAX = 4; // of an agent at a time
constexpr unsigned AGENT_TRANSFER_SILENCE_S = 15;

// AGENT_OPC_PUT_FILE: body agent_file_t, answer agent_transfer_t. AGENT_OPC_LIST_FILES: no body; the answer is an
// agent_file_t for each delivered file, in order of the names.
struct agent_file_t {
    char name[AGENT_FILE_NAME_BYTES]; // 1 to 63 letters, digits and ._-+, no dot or dash first; a NUL
    be64 size_bytes;                  // at least 1
    std::uint8_t sha256[AGENT_DIGEST_BYTES];
};
static_assert(sizeof(agent_file_t) == 104);
static_assert(offsetof(agent_file_t, size_bytes) == 64);

struct agent_transfer_t {
    be64 transfer; // names the transfer in the requests that follow; no other transfer of the card has had it
    be64 size_bytes;
};
static_assert(sizeof(agent_transfer_t) == 16);

// AGENT_OPC_PUT_PIECE: body agent_put_piece_t and 1 to AGENT_PIECE_BYTES bytes behind it. No answer but the status.
struct agent_put_piece_t {
    be64 transfer;
    be64 offset; // of the first byte
};
static_assert(sizeof(agent_put_piece_t) == 16);

// AGENT_OPC_PUT_END: body agent_transfer_req_t. AGENT_OK: the file has its name, and both are on the disk; a file
// that had the name before was replaced.
struct agent_transfer_req_t {
    be64 transfer;
};
static_assert(sizeof(agent_transfer_req_t) == 8);

// AGENT_OPC_GET_FLASH: body agent_flash_req_t, answer agent_transfer_t.

// AGENT_OPC_GET_FILE: body agent_file_req_t, answer agent_transfer_t. AGENT_OPC_REMOVE_FILE: the same body; no
// answer but the status.
struct agent_file_req_t {
    char name[AGENT_FILE_NAME_BYTES];
};
static_assert(sizeof(agent_file_req_t) == 64);

// AGENT_OPC_GET_PIECE: the answer is so many bytes, or those up to the end when these are fewer.
struct agent_get_piece_t {
    be64 transfer;
    be64 offset;
    be32 bytes; // 1 to AGENT_PIECE_BYTES
};
static_assert(sizeof(agent_get_piece_t) == 20);
static_assert(offsetof(agent_get_piece_t, bytes) == 16);

// AGENT_OPC_GET_END: body agent_transfer_req_t. The answer is the digest of the bytes that were given: they are
// what the flash held all the time, or the file as it was delivered.
struct agent_digest_t {
    std::uint8_t sha256[AGENT_DIGEST_BYTES];
};
static_assert(sizeof(agent_digest_t) == 32);

// Orders (flash_order.h). Whoever wants a flash to be programmed orders it first, from the agent of its card, and
// renews the order every 5 s until the programming has ended; an order that nobody has claimed ends 15 s after it
// was renewed last.

// AGENT_OPC_ORDER_FLASH: body agent_order_req_t, answer agent_order_taken_t. A status of bios_refusals.h says that
// the image would not be written: all is judged that was told of it. The image itself is judged when the order is
// claimed, whatever was told.
struct agent_order_req_t {
    be32 instance;
    be32 forced;         // bits of bios_force
    agent_image_t image; // as the agent of the card that has it has told
    char from[128];      // where it comes from, for people
    char user[64];       // who wants it
    char host[64];
    be32 judge_only; // 1: nothing is ordered; the answer says whether it could be, and the id is 0
    be32 is_copied;  // 1: another card copies the image to the boot flash of this one before it is programmed
};
static_assert(sizeof(agent_order_req_t) == 712);
static_assert(offsetof(agent_order_req_t, image) == 8);
static_assert(offsetof(agent_order_req_t, from) == 448);

struct agent_order_taken_t {
    be32 instance;
    be64 id;            // of the order; 0: nothing was ordered
    be64 missing_bytes; // what the card's boot flash lacks for the copy; not 0: nothing was ordered
};
static_assert(sizeof(agent_order_taken_t) == 20);
static_assert(offsetof(agent_order_taken_t, missing_bytes) == 12);

// AGENT_OPC_RENEW_ORDER: body agent_order_id_t; no answer but the status. AGENT_ERR_NO_ORDER: it has ended.
struct agent_order_id_t {
    be32 instance;
    be64 id;
};
static_assert(sizeof(agent_order_id_t) == 12);

// AGENT_OPC_END_ORDER: no answer but the status.
struct agent_order_end_t {
    agent_order_id_t order;
    be32 result; // why
};
static_assert(sizeof(agent_order_end_t) == 16);

// AGENT_OPC_CANCEL_ORDER: body agent_flash_req_t; no answer but the status. AGENT_ERR_PROGRAMMING: it is being
// written.

// AGENT_OPC_GET_ORDER: body agent_flash_req_t. The answer is the text that flash_order_format gives.

// AGENT_OPC_VERIFY_IMAGE: body agent_verify_req_t. The answer is agent_verified_t when the signature is good.
constexpr std::size_t AGENT_PATH_BYTES = 256;
constexpr std::size_t AGENT_KEY_ID_BYTES = 8;

struct agent_verify_req_t {
    char path[AGENT_PATH_BYTES]; // absolute, of a regular file of the card; a link in its last part is not followed
};
static_assert(sizeof(agent_verify_req_t) == 256);

struct agent_verified_t {
    be64 size_bytes;
    std::uint8_t sha256[AGENT_DIGEST_BYTES]; // of all bytes of the file, as they were checked
    std::uint8_t key_id[AGENT_KEY_ID_BYTES];
    be32 family; // of the manifest, a number of the table of BIOS flashes
    be32 security_version;
};
static_assert(sizeof(agent_verified_t) == 56);
static_assert(offsetof(agent_verified_t, key_id) == 40);
static_assert(offsetof(agent_verified_t, security_version) == 52);
