// Card control registers: one file per register, slots/SLOT/registers/NUMBER, that holds the last value written.
#include "control_register.h"

#include "cctrl.h"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "chassis_dir.h"

namespace
{

// While this file is in the folder every write fails, as on a card whose control block does not answer.
constexpr const char *FAULT_FILE = "/fault";

constexpr uint32_t FLASH_SELECTION = 186;
constexpr uint32_t ALTERNATE_SELECTED = 0xC00;

int32_t failure(int error)
{
    errno = error;
    return -1;
}

std::string register_path(unsigned slot, uint32_t reg)
{
    return chassis_slot_path(slot, "registers") + "/" + std::to_string(reg);
}

} // namespace

int32_t cctrl_write_reg3(uint32_t reg, uint32_t value)
try {
    const unsigned slot = chassis_own_slot();
    if (slot == 0)
        return failure(ENODEV);
    const std::string folder = chassis_slot_path(slot, "registers");
    if (::mkdirat(chassis_dir_fd(), folder.c_str(), 0700) != 0 && errno != EEXIST)
        return -1;
    if (::faccessat(chassis_dir_fd(), (folder + FAULT_FILE).c_str(), F_OK, 0) == 0)
        return failure(EIO);
    char text[16];
    (void)std::snprintf(text, sizeof text, "0x%x\n", value);
    return chassis_write_file(register_path(slot, reg), text) ? 0 : -1;
} catch (const std::exception &) {
    return failure(ENOMEM);
}

unsigned selected_flash()
{
    return chassis_read_value(register_path(chassis_own_slot(), FLASH_SELECTION), 0) == ALTERNATE_SELECTED ? 1 : 0;
}
