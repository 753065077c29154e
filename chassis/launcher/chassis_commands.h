// The launcher's verbs that make, start and stop a chassis. The chassis is open, but for init. All throw
// launcher_error.
#pragma once

#include <chrono>
#include <string>

// Makes the directory of a chassis after a description; it appears complete or not at all.
void init_chassis(const std::string &directory, const std::string &description);

struct up_options {
    std::string directory; // absolute
    std::string daemon;    // executable; empty: the environment's BIOS_DAEMON, or the one beside this program
    std::chrono::seconds patience{30};
};

// Starts every card that runs the daemon and returns when all of them serve. When one does not, the end of its log
// is in the error, and no card is left running.
void bring_up(const up_options &options);

// Ends every process of the chassis; when it returns there is none.
void bring_down();

// Restarts a card and returns when its daemon serves again. software_only: the card goes on running and the daemon
// finds in the inventory that this is the restart of an in-service upgrade.
void restart_card(unsigned slot, bool software_only, std::chrono::seconds patience);
