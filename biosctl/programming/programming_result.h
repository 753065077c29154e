// What came of a programming that was asked for. The commands that program pass it on; text and JSON are made of
// it in program_report.h and program_series.h.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "chassis_module_lock.h"
#include "flash_order.h"
#include "flash_writer.h"
#include "outcome.h"
#include "program_wait.h"

// Whose flash was to be programmed by whom.
struct program_subject {
    unsigned asked_module = 0;      // as on the command line
    unsigned programmed_module = 0; // the one that the serving daemon programs
    unsigned serving_slot = 0;
};

enum class programming_ending {
    not_tried, // a series ended before its turn
    not_asked, // the request was not sent; obstacle says why
    no_answer, // no daemon has taken the request; obstacle says why
    refused,   // the daemon has answered the request with code
    // It was accepted and watched:
    verified,     // the only success: code 0, heard to be verified, and the card's agent finds the image there
    not_verified, // code 0, though the flash does not hold the image after work on it had begun
    unconfirmed,  // code 0 and heard to be verified, but the agents cannot say whether it is so
    nothing_programmed, // code 0, and no work on a flash was seen
    nothing_to_do,      // code says that nothing had to be done
    already_there,      // the flash holds the image; nothing was asked for
    would_program,      // nothing was asked for, but it could be
    failed,             // code says why
    daemon_ended,       // before it reported a code
    interrupted,        // by Ctrl-C; the card works on
    timed_out,          // the time given has passed; the card works on
    stalled,            // nothing has moved for long, and nobody has reported an end
    other_version,      // verified, but the flash holds another version than the one expected
};

// As in tables and JSON.
const char *ending_name(programming_ending ending);

enum class flash_finding {
    not_looked,   // or not at a flash whose programming has ended
    holds_image,  // the one that was asked for, nobody writes, and the record of what was written says so
    holds_other,  // bytes
    not_recorded, // the image, but who was to write it has not recorded that it was verified
    half_written, // its programming goes on, or was cut off
    unknown,
};

struct flash_proof {
    flash_finding finding = flash_finding::not_looked;
    std::string why = {}; // it is unknown or not recorded; for people
    bool is_begun = true; // false: by the order's record nobody has begun to write
};

struct lock_in_the_way {
    unsigned module = 0; // that is locked
    chassis_module_lock_holder holder = {};
};

// What was to be written over what; versions are empty when there is none.
struct wanted_image {
    std::string name = {}; // for people: "bootflash:NAME", "the image tree"
    std::string version = {};
    std::string old_version = {};
};

struct version_check {
    std::string expected = {};
    std::string found = {}; // empty: it could not be read
};

struct programming_result {
    program_subject subject = {};
    wanted_image image = {};
    programming_ending ending = programming_ending::not_tried;
    std::optional<outcome> obstacle = {};   // when not asked or not answered
    std::uint32_t code = 0;                 // of an ending that has one
    progress_state progress = {};           // of one that was watched
    std::optional<unsigned> elapsed_s = {}; // none: it was not watched
    flash_proof proof = {};                 // of one whose end was seen
    std::optional<flash_writer> writer =
        {}; // of one that was refused or has failed while somebody writes the flash
    std::optional<lock_in_the_way> lock = {};   // of one that was refused as busy, when the holder is known
    std::optional<flash_order> order = {};      // of somebody else, when that is why it was refused
    std::optional<unsigned> silent_daemon = {}; // slot, of one that has stalled
    std::optional<unsigned> silent_agent = {};  // slot, of one that was refused as busy because it can get no locks
    std::optional<version_check> version = {};  // when the flash was asked for its version afterwards
    std::optional<std::string> cause = {}; // why nothing was programmed, as found on the card; empty: not there

    bool tried() const { return ending != programming_ending::not_tried; }
    bool has_code() const; // whether a daemon has given one
    // It was heard to be read back and found equal, and the agents find it so.
    bool is_proved() const { return progress.verified() && proof.finding == flash_finding::holds_image; }
};

// How a programming has ended that was watched. Code 0 alone is no success: a programming process that was killed,
// an image that held nothing for this card and a flash instance that the card does not have end with it too. Nor
// are messages, which anybody may send: the proof counts.
programming_result result_of(const program_subject &subject, const programming_end &end, flash_proof proof);

programming_result not_asked(const program_subject &subject, outcome why);
programming_result no_answer(const program_subject &subject, outcome why);

// The same programming after a look at the version in the flash. The dates of versions are not compared.
programming_result with_version(programming_result result, version_check version);

// How a command ends that has this to report. REQUIRES: it was tried.
exit_code exit_of(const programming_result &result);

// Neither programmed nor found without need: it was not tried, or has failed.
bool is_undone(const programming_result &result);
