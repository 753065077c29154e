// What the result codes of the daemon, the flash service, the boot-loader service and the module lock mean to
// an operator: a name, the meaning, the state that the flash is left in, and what to do next.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "exit_codes.h"
#include "place_hints.h"
#include "styled_text.h"

// What to do next, and where to look for it.
struct next_step {
    const char *text;
    look_at where = look_at::nowhere;
    const char *rest = ""; // of the text, behind the place
};

// What several endings say of a flash, and what to do then.
constexpr styled_literal FLASH_CORRUPTED{"may be corrupted: do not reboot the card", text_meaning::wrong};
constexpr styled_literal FLASH_UNKNOWN{"unknown: do not reboot the card", text_meaning::wrong};
constexpr next_step PROGRAM_AGAIN{"program the card again; reboot only after that has succeeded"};

struct result_row {
    std::uint32_t code;
    const char *name;     // short, for programs: lower case, underscores
    const char *meaning;  // one sentence without a full stop
    styled_literal flash; // state of the BIOS flash after this result
    next_step next;
    exit_code exit; // how biosctl ends; 0 for result 0 only with the proof that a flash was verified
};

// All rows, in order of their codes.
std::span<const result_row> result_rows();

// The row of a code; null for a code that is in no row.
const result_row *find_result(std::uint32_t code);

// What is known about a code: its row, or texts put together for a code that is in none.
struct result_description {
    std::uint32_t code;
    std::string name;
    std::string meaning;
    styled_text flash;
    std::string next;
    exit_code exit;
};
result_description describe_result(std::uint32_t code);

// How biosctl ends when this code was the answer to what it asked for. Result 0 alone proves nothing: EXIT_FAILED.
exit_code failure_exit(std::uint32_t code);

// "0x4071000a (busy): what it means".
styled_text result_sentence(const result_description &result);

// "0x4071000a".
std::string code_text(std::uint32_t code);

// "slot 3".
std::string slot_text(unsigned slot);
