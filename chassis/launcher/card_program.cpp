#include "card_program.h"

#include <unistd.h>

#include "answer_form.h"
#include "card_files.h"
#include "chassis_dir.h"

card_program program_of(unsigned slot)
{
    const auto form = parse_answer_form(read_line(chassis_slot_path(slot, ANSWERS_FILE)));
    const bool daemon = form.value_or(answer_form::daemon) == answer_form::daemon;
    return daemon ? card_program::daemon : card_program::standin;
}

const char *program_name(card_program program)
{
    switch (program) {
    case card_program::daemon:
        return "bios_daemon";
    case card_program::standin:
        return "module_standin";
    case card_program::agent:
        break;
    }
    return "bios_agent";
}

std::string place_in_root(card_program program)
{
    return PROGRAMS_IN_ROOT + std::string(program_name(program));
}

std::string agent_program(const std::string &daemon, const std::string &tools)
{
    const std::string name = program_name(card_program::agent);
    const std::string beside_daemon = daemon.substr(0, daemon.rfind('/') + 1) + name;
    return ::access(beside_daemon.c_str(), X_OK) == 0 ? beside_daemon : tools + "/" + name;
}

std::string program_file(card_program program, const std::string &daemon, const std::string &tools)
{
    return program == card_program::daemon ? daemon : tools + "/" + program_name(program);
}
