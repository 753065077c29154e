// The directory that holds one chassis, as a process of it sees it.
//
// Everything that cards share or that belongs to one card lies in files below one directory:
//
//   inventory/SLOT/   one-value text files, live: card_id, kind, sup_state, hw_change_bit, upgrade_restart
//   mts/              endpoints of the transport
//   slots/SLOT/       one card: root/ (its private root), flash/primary/ and flash/alternate/, registers/,
//                     sprom, locks/, log, syslog, debug, history, debug_flags, policy, keys/, security_version,
//                     flash_names/
//
// A card's processes run with a root of their own, from which the directory has no path; they reach it through
// a descriptor inherited from the launcher. All access is therefore by *at() calls relative to it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// The environment that the launcher gives to a card, and that a tool outside of a card may be given.
constexpr const char *CHASSIS_ENV_DIR_FD = "CHASSIS_DIR_FD"; // inherited descriptor of the directory, decimal
constexpr const char *CHASSIS_ENV_DIR = "CHASSIS_DIR";       // path of the directory, where it has one
constexpr const char *CHASSIS_ENV_SLOT = "CHASSIS_SLOT";     // own slot, decimal; absent: not a card, slot 0

// File of a slot: not 0 when its daemon was started again and the card has not booted since; absent: it has.
constexpr const char *CHASSIS_SOFTWARE_RESTART = "software_restart";

// File of a slot: when the card has booted, as utc_now_microseconds. What boots the card writes it.
constexpr const char *CHASSIS_BOOTED = "booted";

// Descriptor of the chassis directory (close-on-exec), opened at the first call from the environment.
// -1 with errno when the environment names none or it cannot be opened.
int chassis_dir_fd();

// Slot of this process: 1..232 on a card, 0 elsewhere.
unsigned chassis_own_slot();

// Makes this process one of the chassis at path (slot as above), in place of what the environment says; closes
// the descriptor used so far. 0, or -1 with errno.
int chassis_attach(const std::string &path, unsigned slot);

// What speaks against using a folder below the chassis directory ("." for itself): it is another user's, or others
// may write to it, so that what lies in it may be anybody's. Empty when nothing does; a text for a person.
std::string chassis_folder_problem(const std::string &path);

// Name below the chassis directory of a file of a slot: "slots/3/NAME" and "inventory/3/NAME".
std::string chassis_slot_path(unsigned slot, const std::string &name);
std::string chassis_inventory_path(unsigned slot, const std::string &name);

// Reads a regular file below the chassis directory whole, at most limit bytes; waits for nobody. false with errno.
bool chassis_read_file(const std::string &path, std::string &content, std::size_t limit = 1 << 20);

// Replaces a file below the chassis directory so that a reader sees the old or the new content, never a part.
// false with errno.
bool chassis_write_file(const std::string &path, const std::string &content);

// One-value files: a number, decimal or with 0x, and a newline. chassis_read_value: fallback when the file is
// absent or holds no number.
std::uint32_t chassis_read_value(const std::string &path, std::uint32_t fallback);
bool chassis_write_value(const std::string &path, std::uint32_t value);
