// The chassis as its cards describe it at the moment of the call, or a tenth of a second before.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Makes this process a tool of a chassis.
//   dir  path of the chassis directory; empty: the environment's, and ./chassis.d when the environment names none
// false when there is no chassis; where_out tells where it was looked for. problem_out is empty then, or says why
// one that is there is not used: another user has a hand in it.
[[nodiscard]] bool open_chassis(const std::string &dir, std::string &where_out, std::string &problem_out);

// Whether the directory of the chassis is still there.
bool chassis_is_there();

// Whether the agent of any card answers.
bool any_card_answers();

// Whether a card is entered for a module number (1..232).
bool module_exists(unsigned module);

// The module numbers that a card is entered for, in order.
std::vector<unsigned> modules_of_chassis();

// The modules that a command line named, or all of the chassis when it named none: in order, each once.
std::vector<unsigned> modules_named(const std::vector<unsigned> &named);

// Hardware card id of a module; 0 when none is entered.
std::uint32_t card_id_of(unsigned module);

// Node of a module's daemon: module * 256 + 1 on a supervisor, module * 256 + 2 on any other card.
std::uint32_t node_of_module(unsigned module);

// Whether the supervisor state of a slot is "active", and "standby".
bool slot_is_active(unsigned slot);
bool slot_is_standby(unsigned slot);

// Slot of the active supervisor; the lowest if there are several, none if there is none.
std::optional<unsigned> active_supervisor();

// Whether the card in a slot is of a kind whose daemon programs module TARVIK_A_MODULE_NUM, and tells that module's
// versions, whatever module it is asked for.
bool slot_programs_one_module_only(unsigned slot);

// The slot whose card unpacks the image that a supervisor's daemon programs into a module: an active supervisor
// does so for itself and for the standby supervisor. None for any other card, which programs what lies ready on it.
std::optional<unsigned> slot_that_unpacks_for(unsigned module, unsigned serving_slot);
