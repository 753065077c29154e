// The kinds of values that arguments take: each refuses what is none and rewrites the rest to its plain form.
#pragma once

#include <cstddef>

#include <CLI/CLI.hpp>

constexpr const char *ALL_MODULES = "all";

// A plain decimal number of a range. Rewritten without leading zeros: what follows would take them for an octal
// number.
CLI::Validator decimal(unsigned low, unsigned high);

// The same, or the word "all".
CLI::Validator decimal_or_all(unsigned low, unsigned high);

// Seconds with at most three decimal places, in a range of milliseconds; rewritten to milliseconds.
CLI::Validator seconds_in_ms(unsigned low_ms, unsigned high_ms);

// A system image on a card, rewritten to its URI in a programming request.
CLI::Validator image_uri();

// An image on a card, rewritten to its path of at most path_bytes_max bytes.
CLI::Validator image_on_card(std::size_t path_bytes_max);

// A result code, hexadecimal or decimal; rewritten to a decimal number.
CLI::Validator result_code();
