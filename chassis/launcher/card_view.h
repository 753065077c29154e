// The launcher's verbs that look at a chassis, which is open. All throw launcher_error.
#pragma once

#include <string>

// A table of the cards, or with json one object with all that is known.
std::string show_status(bool json);

// Prints a card's log on standard output; follow: goes on with what is added, until the process is ended.
void print_log(unsigned slot, bool follow);
