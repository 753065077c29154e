#include "module_lock_record.h"

#include <cstdio>
#include <unistd.h>

#include "chassis_dir.h"

namespace
{

constexpr std::size_t LINE_LIMIT_BYTES = 256;

std::string record_path(std::uint16_t node_id)
{
    char name[16];
    std::snprintf(name, sizeof name, "locks/%04x", node_id);
    return chassis_slot_path(chassis_own_slot(), name);
}

} // namespace

std::string module_lock_text(const chassis_module_lock_holder &holder)
{
    char text[128];
    std::snprintf(text, sizeof text, "%04x %u %u %u 0x%08x %.24s", holder.node_id, holder.slot, holder.pid,
                  holder.owner, holder.reason, holder.since.c_str());
    return text;
}

std::optional<chassis_module_lock_holder> parse_module_lock(const std::string &line)
{
    chassis_module_lock_holder holder{};
    unsigned node_id = 0;
    char since[25] = "";
    if (std::sscanf(line.c_str(), "%4x %u %u %u %x %24s", &node_id, &holder.slot, &holder.pid, &holder.owner,
                    &holder.reason, since) != 6)
        return std::nullopt;
    holder.node_id = static_cast<std::uint16_t>(node_id);
    holder.since = since;
    return holder;
}

bool module_lock_record_write(const chassis_module_lock_holder &holder)
{
    return chassis_write_file(record_path(holder.node_id), module_lock_text(holder) + "\n");
}

void module_lock_record_remove(std::uint16_t node_id)
{
    (void)::unlinkat(chassis_dir_fd(), record_path(node_id).c_str(), 0);
}

std::optional<chassis_module_lock_holder> module_lock_record_read(std::uint16_t node_id)
{
    std::string text;
    if (!chassis_read_file(record_path(node_id), text, LINE_LIMIT_BYTES))
        return std::nullopt;
    const auto holder = parse_module_lock(text);
    return holder && holder->node_id == node_id ? holder : std::nullopt;
}
