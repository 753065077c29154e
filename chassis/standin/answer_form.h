// How the module of a slot answers version queries: by the daemon, or by a stand-in with one of the forms that
// modules of other makes are known to answer with.
//
//   slots/SLOT/answers      name of the form; absent: daemon
//   slots/SLOT/answer_rows  rows that the form "full" tells
//   slots/SLOT/answer_seed  seed of the form "garbage"; absent: another one at each start
//
// Which program a card runs is settled when it starts. A running stand-in reads the form and the rows anew for
// each message.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

enum class answer_form {
    daemon,
    short_form, // the first record alone, as old modules send it
    full,       // all records, a TLV for each further row and one of the type that is ignored
    garbage,    // random bytes
    silent,     // none: every message is received and no request answered
};

struct named_answer_form {
    std::string_view name;
    answer_form form;
};

constexpr std::array<named_answer_form, 5> ANSWER_FORMS = {{
    {.name = "daemon", .form = answer_form::daemon},
    {.name = "short", .form = answer_form::short_form},
    {.name = "full", .form = answer_form::full},
    {.name = "garbage", .form = answer_form::garbage},
    {.name = "silent", .form = answer_form::silent},
}};

constexpr const char *ANSWERS_FILE = "answers";
constexpr const char *ANSWER_ROWS_FILE = "answer_rows";
constexpr const char *ANSWER_SEED_FILE = "answer_seed";

constexpr std::uint32_t DEFAULT_ANSWER_ROWS = 2;
constexpr std::uint32_t MAX_ANSWER_ROWS = 1000;

constexpr std::optional<answer_form> parse_answer_form(std::string_view name)
{
    for (const named_answer_form &known : ANSWER_FORMS) {
        if (known.name == name)
            return known.form;
    }
    return std::nullopt;
}
