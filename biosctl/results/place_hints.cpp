#include "place_hints.h"

#include "unix_sockets_driver.h"

namespace
{

constexpr const char *START_AGENTS =
    "check that the cards are up and run their agents (systemctl status bios-agent)";

std::string log_text(const std::string &slot, surroundings where)
{
    return where == surroundings::lab ? "chassis log " + slot : "journalctl -u bios-daemon on the card";
}

} // namespace

surroundings own_surroundings()
{
    return card_datagram_driver == &unix_sockets_driver ? surroundings::lab : surroundings::card;
}

std::string place_text(look_at what, const std::string &slot, surroundings where)
{
    const bool lab = where == surroundings::lab;
    switch (what) {
    case look_at::cards:
        return lab ? "chassis status" : "biosctl show";
    case look_at::card_ids:
        return lab ? "chassis status" : "biosctl metrics";
    case look_at::states:
        return lab ? "chassis status" : "biosctl watch";
    case look_at::log:
        return log_text(slot, where);
    case look_at::log_and_states:
        return log_text(slot, where) + ", " + place_text(look_at::states, slot, where);
    case look_at::nowhere:
        break;
    }
    return {};
}

std::string place_in_brackets(look_at what, const std::string &slot, surroundings where)
{
    return what == look_at::nowhere ? "" : " (" + place_text(what, slot, where) + ")";
}

std::string no_agent_hint(surroundings where)
{
    return where == surroundings::lab
               ? "see what runs with: chassis status; if the chassis is down, start it with: chassis up"
               : START_AGENTS;
}

std::string card_agent_hint(const std::string &slot, surroundings where)
{
    return where == surroundings::lab
               ? "see what runs with: chassis status, and what it says with: chassis log " + slot
               : START_AGENTS;
}

std::string no_locks_hint(surroundings where)
{
    return where == surroundings::lab ? "check that the chassis directory is yours" : START_AGENTS;
}

std::string no_endpoint_hint(surroundings where)
{
    return where == surroundings::lab
               ? "check that the chassis directory is yours and can be written, and that the chassis is up"
               : "check that the card's network to the other cards is up, and that you may use it";
}
