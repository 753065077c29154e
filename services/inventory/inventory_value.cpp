#include "inventory_value.h"

#include <fcntl.h>
#include <unistd.h>

#include "chassis_dir.h"

std::uint32_t inventory_value(unsigned slot, const char *name, std::uint32_t limit)
{
    const std::uint32_t value = chassis_read_value(chassis_inventory_path(slot, name), 0);
    return value <= limit ? value : 0;
}

bool inventory_has(unsigned slot, const char *name)
{
    return ::faccessat(chassis_dir_fd(), chassis_inventory_path(slot, name).c_str(), F_OK, 0) == 0;
}
