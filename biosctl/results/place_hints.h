// Where an operator looks further. The lab has a tool for it, `chassis`. A real card has not: there the hints name
// other commands of biosctl and the card's own log.
#pragma once

#include <string>

enum class surroundings { lab, card };

// The cards of the lab are processes of one machine and talk by its sockets; real cards have another driver.
surroundings own_surroundings();

enum class look_at {
    nowhere,
    cards,    // which cards the chassis has
    card_ids, // the card id of each
    states,   // roles, who serves, what is programmed
    log,      // of one card
    log_and_states,
};

// The command that shows it: "chassis status".
//   slot  whose log is meant
std::string place_text(look_at what, const std::string &slot = "SLOT", surroundings where = own_surroundings());

// The same behind what it is good for: " (chassis status)". Empty for nowhere.
std::string place_in_brackets(look_at what, const std::string &slot = "SLOT",
                              surroundings where = own_surroundings());

// What to do when no agent answers, when that of one card does not, when the module locks are not told, and when no
// endpoint can be bound.
std::string no_agent_hint(surroundings where = own_surroundings());
std::string card_agent_hint(const std::string &slot, surroundings where = own_surroundings());
std::string no_locks_hint(surroundings where = own_surroundings());
std::string no_endpoint_hint(surroundings where = own_surroundings());
