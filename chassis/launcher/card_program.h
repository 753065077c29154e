// What serves on a card: the daemon, or the stand-in for a module that runs none; and beside it the agent.
#pragma once

#include <string>

enum class card_program { daemon, standin, agent };

constexpr const char *PROGRAMS_IN_ROOT = "/vesk/sbin/";

// What the slot's files say now. A form of answers that is not known is taken for the daemon.
card_program program_of(unsigned slot);

const char *program_name(card_program program);

// The agent's executable: the one beside the daemon, because both know the same card families; else that of the
// tools.
std::string agent_program(const std::string &daemon, const std::string &tools);

// Where the program lies in a card's root, and which file of this machine it is: all but the daemon lie in the
// folder of the tools.
std::string place_in_root(card_program program);
std::string program_file(card_program program, const std::string &daemon, const std::string &tools);
