// The launcher's verb that switches the debug categories of a card; the chassis is open.
#pragma once

#include <string>
#include <vector>

// What is wrong with a word of the command line; empty when it is "+CATEGORY" or "-CATEGORY", or "+all" or "-all".
std::string debug_word_problem(const std::string &word);

// Categories that are on after the words were obeyed one after the other, in their usual order.
//   words  REQUIRES: debug_word_problem() is empty for each
std::vector<std::string> switched_categories(const std::vector<std::string> &on_before,
                                             const std::vector<std::string> &words);

// Switches the categories of a card's daemon, running or not, and prints on standard output what is on then.
//   words   as above; none: nothing is changed
//   follow  goes on with the debug lines that come from then on, until the process is ended
// Throws launcher_error when the slot has no card that runs the daemon.
void debug_card(unsigned slot, const std::vector<std::string> &words, bool follow);
