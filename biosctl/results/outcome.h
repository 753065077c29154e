// How a command ended: the exit code and what is told about it, for people and for programs.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "exit_codes.h"
#include "result_text.h"
#include "text_report.h"

// A line below the headline: "next: reboot the card".
struct hint {
    const char *label;
    styled_text text;
};

struct outcome {
    exit_code exit = EXIT_DONE;
    styled_text headline = {};        // for people: one line; empty when the command has printed all while it ran
    std::vector<hint> hints = {};     // for people: below the headline, in this order
    nlohmann::ordered_json json = {}; // for programs: an object; null when the command has printed all while it ran
    text_report report = {};          // for people: on standard output, however the command ended
};

// A command that could not do its work: what is wrong (with the place) and what to do next.
outcome failure(exit_code exit, const styled_text &what, const std::string &next);

// The same for a result code: "what: 0x4071000a (busy): meaning", the flash's state and what to do next.
outcome failure_by_code(const std::string &what, std::uint32_t code);

// The members of a code that every JSON answer about it has: result, name, meaning, flash, next.
nlohmann::ordered_json json_of(const result_description &result);

// A text that is not known is null in JSON.
nlohmann::ordered_json text_or_null(const std::string &text);

// What print_outcome prints for a failure, the last newline included.
std::string failure_text(const outcome &end, bool json);

// Prints a report on standard output, before whatever comes next on either stream.
void print_report(const text_report &report);

// Prints an outcome and gives its exit code. With json: one JSON object on standard output and nothing else.
// Without: success on standard output, anything else on standard error.
[[nodiscard]] int print_outcome(const outcome &end, bool json);
