// Notices, kept for those who come late: every message to MTS_NODE_LISTENERS leaves a line in a file, whether
// anybody listens or not, and so does every MTS_OPC_BIOS_PROGRAMMING_DONE that somebody can get.
//
// Below the chassis directory:
//   transport/notices     "TIME NODE.SAP OPCODE PAYLOAD", the newest last: UTC, the sender as its socket is named,
//   the
//                         opcode in decimal, the payload in hexadecimal or - when it has none
//   transport/notices.1   the notices before, at most as many
//
// The file is diagnostics: a notice that cannot be written, or whose payload is too long for it, is sent all the
// same. Readers take no lock and hold nobody up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mts.h"
#include "unique_fd.h"

constexpr std::size_t NOTICE_PAYLOAD_BYTES_MAX = 256;                      // longer notices are not kept
constexpr std::int64_t NOTICES_FILE_BYTES_MAX = std::int64_t{1024} * 1024; // then it becomes the older file

struct kept_notice {
    std::string time; // UTC, "2026-01-31T23:59:59.123456Z"
    mts_address_t source{};
    std::uint32_t opcode = 0;
    std::vector<std::uint8_t> payload;
};

// Whether a message that is sent to a node is kept.
bool kept_notice_is_one(std::uint32_t node, std::uint32_t opcode);

// A line without its newline, and back; none for anything that format does not give.
std::string kept_notice_format(const kept_notice &notice);
std::optional<kept_notice> kept_notice_parse(std::string_view line);

// Writes a notice down, in one write; several processes may at the same time. Keeps errno.
void kept_notice_keep(mts_address_t source, std::uint32_t opcode, const void *payload, std::size_t bytes) noexcept;

// Follows the notices of the chassis that this process belongs to.
class kept_notice_reader
{
public:
    // What came since the last call, the oldest first; at the first call all that are kept. Lines that are no
    // notices are passed over; one that has no newline yet is left for the next call.
    std::vector<kept_notice> take();

private:
    bool follow(const char *name);
    void read_rest(std::vector<kept_notice> &notices);

    unique_fd file_;
    std::int64_t offset_ = 0;  // of the first line that was not taken
    bool inside_line_ = false; // the offset lies inside a line, which is no notice
};
