// The small files of a chassis that the launcher writes and reads, and questions that they answer.
//
//   name, isolation             of the chassis
//   slots/SLOT/name             of the card
//   slots/SLOT/serves           1: the card runs the daemon, or a stand-in
//   slots/SLOT/answers, answer_rows, answer_seed  of a stand-in (answer_form.h); absent: the card runs the daemon
//   slots/SLOT/bootflash_mib    absent: the bootflash is a folder of the card's root
//   slots/SLOT/private_bootflash  marker: what other cards write to the bootflash would not be seen there
//   slots/SLOT/isolation        how the card got its root the last time
//   slots/SLOT/state            starting, "serving PID", restarting, failed or down
//   slots/SLOT/pid              of the daemon, as seen from outside of the card; absent when there is none
//   slots/SLOT/starts           how often the daemon was started since "up"
//   slots/SLOT/booted           when the card has booted
//   slots/SLOT/software_restart 1: the daemon was started again without a boot of the card
//   slots/SLOT/log              what the daemon and the card's process print
//
// All functions work in the chassis that chassis_attach() has chosen.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

constexpr const char *STATE_STARTING = "starting";
constexpr const char *STATE_SERVING = "serving"; // followed by the daemon's process number
constexpr const char *STATE_RESTARTING = "restarting";
constexpr const char *STATE_FAILED = "failed";
constexpr const char *STATE_DOWN = "down";

// Opens the chassis at path. Throws launcher_error when there is none, or one that another user has a hand in.
void open_chassis(const std::string &path);

// Slots that have a card, ascending; those whose card runs the daemon or a stand-in.
std::vector<unsigned> card_slots();
std::vector<unsigned> serving_slots();

// Throws launcher_error when the slot has no card, or one that runs neither.
void require_serving_slot(unsigned slot);

// First line of a file; empty when there is none.
std::string read_line(const std::string &path);

// Replaces a file. Throws launcher_error.
void write_line(const std::string &path, const std::string &line);

// State without the process number, "down" when nothing was recorded.
std::string card_state(unsigned slot);

// Transport node of a slot's daemon, after the kind of its card.
std::uint32_t node_of_slot(unsigned slot);

// Last lines of a card's log.
std::string log_tail(unsigned slot, unsigned lines);
