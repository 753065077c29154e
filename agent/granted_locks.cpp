#include "granted_locks.h"

#include <cstdio>
#include <sstream>

#include "chassis_dir.h"
#include "module_lock_record.h"

namespace
{

constexpr std::size_t FILE_LIMIT_BYTES = 1 << 20;

std::string file_path()
{
    return chassis_slot_path(chassis_own_slot(), "locks/granted");
}

} // namespace

granted_locks load_granted_locks()
{
    granted_locks granted;
    std::string text;
    if (!chassis_read_file(file_path(), text, FILE_LIMIT_BYTES))
        return granted;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        unsigned agent_node = 0;
        unsigned long long id = 0;
        int read = 0;
        if (std::sscanf(line.c_str(), "%x %llx %n", &agent_node, &id, &read) != 2)
            continue;
        if (const auto holder = parse_module_lock(line.substr(static_cast<std::size_t>(read))); holder)
            granted[holder->node_id] = {*holder, agent_node, 0, id};
    }
    return granted;
}

bool store_granted_locks(const granted_locks &granted)
{
    std::string text;
    for (const auto &[node_id, lock] : granted) {
        char agent[48];
        std::snprintf(agent, sizeof agent, "%x %llx ", lock.agent_node, static_cast<unsigned long long>(lock.id));
        text += agent + module_lock_text(lock.holder) + "\n";
    }
    return chassis_write_file(file_path(), text);
}
