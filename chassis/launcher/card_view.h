// The launcher's verbs that look at a chassis, which is open, but for show_families. All throw launcher_error.
#pragma once

#include <string>

// A table of the cards, or with json one object with all that is known.
std::string show_status(bool json);

// A table of the card families, or with json a list of them. Needs no chassis.
std::string show_families(bool json);

// Prints a card's log on standard output; follow: goes on with what is added, until the process is ended.
void print_log(unsigned slot, bool follow);
