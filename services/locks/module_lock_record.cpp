#include "module_lock_record.h"

#include <cstdio>
#include <unistd.h>

#include "chassis_dir.h"
#include "utc_time.h"

namespace
{

std::string record_path(std::uint16_t node_id)
{
    char path[32];
    std::snprintf(path, sizeof path, "locks/%04x", node_id);
    return path;
}

} // namespace

bool module_lock_record_write(std::uint16_t node_id, std::uint32_t owner, std::uint32_t reason)
{
    char text[128];
    std::snprintf(text, sizeof text, "%u %ld %u 0x%08x %s\n", chassis_own_slot(), static_cast<long>(::getpid()),
                  owner, reason, utc_now().c_str());
    return chassis_write_file(record_path(node_id), text);
}

void module_lock_record_remove(std::uint16_t node_id)
{
    (void)::unlinkat(chassis_dir_fd(), record_path(node_id).c_str(), 0);
}

chassis_module_lock_holder module_lock_record_read(std::uint16_t node_id)
{
    chassis_module_lock_holder holder{};
    holder.node_id = node_id;
    std::string text;
    char since[32] = "";
    if (!chassis_read_file(record_path(node_id), text, 256) ||
        std::sscanf(text.c_str(), "%u %u %u %x %31s", &holder.slot, &holder.pid, &holder.owner, &holder.reason,
                    since) != 5) {
        holder = {};
        holder.node_id = node_id;
        return holder;
    }
    holder.since = since;
    return holder;
}
