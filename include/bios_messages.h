// Bodies and payloads of the daemon's messages, in opcode order. A request's body begins 112 bytes into the
// message's payload (MTS_REQUEST_HEADER_BYTES).
#pragma once

#include <cstddef>
#include <cstdint>

#include "big_endian.h"

// MTS_OPC_BIOS_INSTALL_LOADER, request body.
struct bios_install_loader_req_t {
    char image_path[200]; // system image file, NUL-terminated
    be32 remove_image;    // not 0: the file is removed when done
};
static_assert(sizeof(bios_install_loader_req_t) == 204);
static_assert(offsetof(bios_install_loader_req_t, remove_image) == 200);

// MTS_OPC_BIOS_INSTALL_LOADER, answer; the result travels as the answer's status.
struct bios_install_loader_reply_t {
    be32 reserved;
};
static_assert(sizeof(bios_install_loader_reply_t) == 4);

// MTS_OPC_BIOS_GET_LOADER_IMAGE and MTS_OPC_BIOS_GET_KS_IMAGE, request body.
struct bios_loader_file_req_t {
    be32 length; // bytes of the file wanted
};
static_assert(sizeof(bios_loader_file_req_t) == 4);

// Their answer; with status 0 length bytes of the file follow.
struct bios_loader_file_reply_t {
    be32 status; // 0, BIOS_LOADER_ERR_MOUNT, BIOS_LOADER_FILE_NO_MEMORY, or why the file could not be read
    be32 length; // as asked for; 0 on failure
};
static_assert(sizeof(bios_loader_file_reply_t) == 8);

// MTS_OPC_BIOS_MODULE_LOCK, request body.
enum bios_module_lock_operation : std::uint32_t {
    BIOS_MODULE_LOCK_TAKE = 2,
    BIOS_MODULE_LOCK_RELEASE = 3, // any other operation does nothing
};

struct bios_module_lock_req_t {
    be32 operation;
    be32 node_id; // low 16 bits used
};
static_assert(sizeof(bios_module_lock_req_t) == 8);

// MTS_OPC_BIOS_MODULE_LOCK, answer.
struct bios_module_lock_reply_t {
    be32 operation; // as received
    be32 node_id;   // as received
    be32 result;    // 0, or 0x80000000 | (errno & 0xfff)
};
static_assert(sizeof(bios_module_lock_reply_t) == 12);

// Version reports. Text fields are zero-padded, and not NUL-terminated when the text fills them.

// MTS_OPC_BIOS_GET_SRC_BIOS_VERSION, request body. Numbers in the sender's own byte order.
struct bios_src_version_req {
    std::uint32_t def; // not 0: the images of the image tree; 0: image_path names the image
    char image_path[256];
    struct {
        std::uint32_t node;
        std::uint32_t sap;
    } progress_addr; // where progress notices go
};
static_assert(sizeof(bios_src_version_req) == 268);
static_assert(offsetof(bios_src_version_req, image_path) == 4);
static_assert(offsetof(bios_src_version_req, progress_addr) == 260);
static_assert(offsetof(bios_src_version_req, progress_addr.sap) == 264);

// MTS_OPC_BIOS_GET_SRC_BIOS_VERSION, answer: the header and one slot per row of the card, of which the first count
// are filled.
struct bios_src_version_reply {
    be32 status;
    be32 count;
};
static_assert(sizeof(bios_src_version_reply) == 8);

struct bios_src_version_entry {
    be32 reserved;      // 0
    be32 swid;          // flash kind of the row
    char swid_str[128]; // label of the row
    char ver[128];      // version in the image
    be32 src_id;        // image format of the row
};
static_assert(sizeof(bios_src_version_entry) == 268);
static_assert(offsetof(bios_src_version_entry, swid) == 4);
static_assert(offsetof(bios_src_version_entry, swid_str) == 8);
static_assert(offsetof(bios_src_version_entry, ver) == 136);
static_assert(offsetof(bios_src_version_entry, src_id) == 264);

// One flash's versions: entry of bios_new_vers_message and value of a type-0 TLV.
struct bios_version_entry {
    be32 stat;          // status of the version read
    be32 swid;          // flash kind
    char swid_str[128]; // label of the row
    char cur[128];      // version in the flash
    char run[128];      // version that runs
};
static_assert(sizeof(bios_version_entry) == 392);
static_assert(offsetof(bios_version_entry, swid) == 4);
static_assert(offsetof(bios_version_entry, swid_str) == 8);
static_assert(offsetof(bios_version_entry, cur) == 136);
static_assert(offsetof(bios_version_entry, run) == 264);

// MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, request body; more may follow.
struct bios_mod_version_req_t {
    be32 module_num; // module asked for
};
static_assert(sizeof(bios_mod_version_req_t) == 4);

// MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, answer: the header and num_entries times bios_version_entry.
struct bios_new_vers_message {
    be32 reserved;   // undefined
    be32 module_num; // module described
    be32 num_entries;
    be32 bios_id; // 19 for the own card, a forwarded module's own word, 11 for a module that sent the short form
};
static_assert(sizeof(bios_new_vers_message) == 16);
static_assert(offsetof(bios_new_vers_message, bios_id) == 12);

// MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, answer when the module's versions are not to be had.
struct bios_version_failure_t {
    be32 failure; // all ones
    be32 module_num;
    be32 zero;
    be32 reserved; // undefined
};
static_assert(sizeof(bios_version_failure_t) == 16);

// MTS_OPC_BIOS_GET_LC_BIOS_VERSION, answer: bios_compat_version_msg_t and a TLV for each further row. Its three
// records came one after the other; an old module sends the first alone.
struct bios_get_lc_version_t {
    be32 stat;
    char cur[128];
    char run[128];
};
static_assert(sizeof(bios_get_lc_version_t) == 260);
static_assert(offsetof(bios_get_lc_version_t, run) == 132);

struct bios_get_lc_version_swid_t {
    be32 swid; // 19
    char swid_str[128];
};
static_assert(sizeof(bios_get_lc_version_swid_t) == 132);

struct tlv_aligned_array_t {
    be32 count;
};
static_assert(sizeof(tlv_aligned_array_t) == 4);

struct bios_compat_version_msg_t {
    bios_get_lc_version_t version;   // the first row
    bios_get_lc_version_swid_t swid; // the first row
    tlv_aligned_array_t further_rows;
};
static_assert(sizeof(bios_compat_version_msg_t) == 396);
static_assert(offsetof(bios_compat_version_msg_t, swid) == 260);
static_assert(offsetof(bios_compat_version_msg_t, further_rows) == 392);

enum bios_version_tlv : std::uint16_t {
    BIOS_TLV_VERSION_ENTRY = 0, // value: bios_version_entry
    BIOS_TLV_IGNORED = 1,       // value: 1 byte
};

struct bios_tlv_header_t {
    be16 type;
    be16 length; // of the value alone
};
static_assert(sizeof(bios_tlv_header_t) == 4);

// MTS_OPC_BIOS_PROGRAMMING_START, request body; also forwarded to the target module as it stands.
struct bios_programming_req_t {
    be32 programming_mod_num; // module to program, 1-based slot number
    be32 def;                 // not 0: no image is named, the image tree is used
    std::uint8_t reserved[4];
    char uri[228];        // image URI, NUL-terminated
    char local_path[288]; // receives the path that the URI maps to
    std::uint8_t type;    // flash instance to program
};
static_assert(sizeof(bios_programming_req_t) == 529);
static_assert(offsetof(bios_programming_req_t, def) == 4);
static_assert(offsetof(bios_programming_req_t, uri) == 12);
static_assert(offsetof(bios_programming_req_t, local_path) == 240);
static_assert(offsetof(bios_programming_req_t, type) == 528);

// MTS_OPC_BIOS_PROGRAMMING_START, answer; the result travels as the answer's status.
struct bios_programming_reply_t {
    be32 reserved;
};
static_assert(sizeof(bios_programming_reply_t) == 4);

// MTS_OPC_BIOS_PROGRAMMING_NOTIFY, sent to whoever listens.
struct bios_programming_notify_t {
    be32 result;
    be32 programming_mod_num;
};
static_assert(sizeof(bios_programming_notify_t) == 8);

// MTS_OPC_BIOS_PROGRAMMING_DONE, sent to the requester.
struct bios_programming_done_t {
    be32 result;
};
static_assert(sizeof(bios_programming_done_t) == 4);

// MTS_OPC_BIOS_PROGRAMMING_PROGRESS: one programming goes from 0 to 100 and never back; 100 is sent only after
// the whole flash was read back and equals the image.
enum bios_programming_phase : std::uint32_t {
    BIOS_PHASE_ERASE = 1,
    BIOS_PHASE_WRITE = 2,
    BIOS_PHASE_VERIFY = 3,
};

struct bios_programming_progress_t {
    be32 phase;
    be32 percent; // 0..100 over all phases
    be32 attempt; // 1-based
};
static_assert(sizeof(bios_programming_progress_t) == 12);
