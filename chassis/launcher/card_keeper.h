// The process behind a card: "chassis card SLOT", in the background, for as long as the card is up.
//
// It builds the card's root, starts a session (card_session.h), records how the card is (card_files.h), and starts
// the daemon again when it ends. It is told what to do by signals:
//   SIGTERM  take the card down
//   SIGHUP   reboot: the daemon is killed, /tmp emptied, the daemon started
//   SIGUSR1  restart of the software alone: the daemon is killed and started
// A daemon that ends too often is left alone; the card is then "failed" until it is restarted or taken down.
#pragma once

#include <string>

#include "isolation.h"

struct keeper_options {
    std::string directory; // of the chassis, absolute
    unsigned slot = 0;
    isolation way = isolation::plain;
    std::string daemon; // the executable; taken anew at each start
    std::string tools;  // folder with veskadd and, where they are there, the other tools of a card
};

// Runs until the card is taken down; the chassis is open. The exit status: 0, or 1 when the card could not be
// brought up (the log says why). Throws launcher_error before anything was started.
int keep_card(const keeper_options &options);
