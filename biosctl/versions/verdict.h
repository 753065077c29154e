// What the versions of one flash say about it: in step with the image that ships for the card, or not.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <string>

#include "place_hints.h"
#include "styled_text.h"

// "v3.5.0(09/17/12)". Two builds may have the same numbers and differ in the date.
struct bios_version {
    std::array<unsigned, 3> number; // major, minor, patch
    std::string date;

    bool operator==(const bios_version &) const = default;
};

// Reads a version text: from its first 'v', three numbers of one to four digits and a date in parentheses. None
// for anything else: a text that is not understood is not compared.
std::optional<bios_version> parse_version(const std::string &text);

enum class verdict {
    being_programmed,
    not_verified,
    unreachable,
    unconfirmed,
    changed,
    reboot_pending,
    update_available,
    newer_than_shipped,
    in_step,
    unknown,
};

// What is known about one flash. Texts as they came; empty, or not understood, when a version could not be read.
struct version_facts {
    bool being_programmed = false;
    bool not_verified = false; // begun to be programmed, and not found equal to the image since
    bool reachable = true;
    bool changed = false;     // it does not hold any more what was verified last, as far as that was looked at
    bool confirmed = true;    // read by the card's agent; false: as its daemon says, which may not have looked
    std::string flash = {};   // in the flash
    std::string running = {}; // that runs
    std::string source = {};  // in the image that ships for the card
};

// The first that holds, in this order:
//   being programmed    the flash must not be judged, whatever was read from it
//   not verified        the flash may be half written
//   unreachable         the card could not be asked
//   unconfirmed         its agent does not answer, and its daemon may take what runs for what the flash holds
//   changed             somebody has changed the flash without an order
//   unknown             the flash's or the running version could not be read
//   reboot pending      they differ, numbers or date; also when the image is newer still
//   unknown             the image's version could not be read
//   update available    the image is newer
//   newer than shipped  the flash is newer
//   in step             the same numbers. As in the daemon, the image's date is not compared
verdict judge(const version_facts &facts);

struct verdict_row {
    verdict kind;
    const char *name; // as in tables and JSON
    text_meaning meaning;
    styled_literal advice;
    look_at where = look_at::nowhere; // what is advised is to look there
    bool programs = false;            // or to program the card
};

// What it means and what to do next.
styled_text advice_text(const verdict_row &row);

// All rows in the order of the enumeration.
std::span<const verdict_row> verdict_rows();
const verdict_row &row_of(verdict kind);
const char *verdict_name(verdict kind);
