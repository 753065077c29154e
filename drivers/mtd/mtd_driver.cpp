#include "mtd_driver.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "chassis_dir.h"
#include "mtd_flash.h"
#include "sdwrap.h"

namespace
{

constexpr std::size_t NAME_BYTES_MAX = 256;
constexpr std::uint32_t SYSLOG_ERROR = 3; // severity

mtd_flash *mtd_of(flash_part *part)
{
    return reinterpret_cast<mtd_flash *>(part);
}

const mtd_flash *mtd_of(const flash_part *part)
{
    return reinterpret_cast<const mtd_flash *>(part);
}

// The name that a flash has in the kernel. false with errno: ENOENT when the card has no such flash.
bool read_name(unsigned slot, unsigned instance, std::string &name)
{
    const std::string path =
        chassis_slot_path(slot, std::string(MTD_NAMES_FOLDER) + "/" + MTD_NAME_FILES[instance]);
    if (!chassis_read_file(path, name, NAME_BYTES_MAX))
        return false;
    name.resize(std::min(name.find('\n'), name.size()));
    return true;
}

// The same, with what speaks against it: two flashes on one MTD would write over each other's image.
bool find_name(unsigned slot, unsigned instance, std::string &name, std::string &problem)
{
    if (!read_name(slot, instance, name)) {
        const int failure = errno;
        if (failure != ENOENT)
            problem = std::string(MTD_NAMES_FOLDER) + ": " + std::strerror(failure);
        errno = failure;
        return false;
    }
    std::string other;
    if (name.empty())
        problem = "its name in " + std::string(MTD_NAMES_FOLDER) + " is empty";
    else if (read_name(slot, 1 - instance, other) && other == name)
        problem = "both flashes have the name \"" + name + "\" in " + MTD_NAMES_FOLDER;
    errno = EINVAL;
    return problem.empty();
}

// A watcher opens a flash again and again: what it is not opened for is told when it is news.
void tell(unsigned instance, const std::string &problem)
{
    static std::string told[FLASH_INSTANCE_COUNT];
    if (problem != told[instance] && !problem.empty())
        vesk_syslog(SYSLOG_ERROR, "%s", (std::string(MTD_NAME_FILES[instance]) + " flash: " + problem).c_str(),
                    SYSLOG_ERROR);
    told[instance] = problem;
}

} // namespace

flash_part *mtd_open(const mtd_calls &calls, unsigned instance, flash_access access)
{
    if (instance >= FLASH_INSTANCE_COUNT) {
        errno = EINVAL;
        return nullptr;
    }
    const unsigned slot = chassis_own_slot();
    std::string name, problem;
    std::unique_ptr<mtd_flash> flash;
    if (find_name(slot, instance, name, problem))
        flash = mtd_flash::open(calls, slot, instance, name, access, problem);
    const int failure = errno;
    tell(instance, problem);
    errno = failure;
    return reinterpret_cast<flash_part *>(flash.release());
}

const flash_driver mtd_driver = {
    .name = "mtd",
    .open = [](unsigned instance, flash_access access) { return mtd_open(mtd_kernel_calls, instance, access); },
    .close = [](flash_part *part) { delete mtd_of(part); },
    .geometry = [](const flash_part *part) -> const flash_geometry & { return mtd_of(part)->geometry(); },
    .is_protected = [](const flash_part *part, std::uint32_t sector) { return mtd_of(part)->is_protected(sector); },
    .erase = [](flash_part *part, std::uint32_t sector) { return mtd_of(part)->erase(sector); },
    .program = [](flash_part *part, std::uint32_t offset, const std::uint8_t *bytes,
                  std::uint32_t length) { return mtd_of(part)->program(offset, bytes, length); },
    .read = [](flash_part *part, std::uint32_t offset, std::uint8_t *bytes_out,
               std::uint32_t length) { return mtd_of(part)->read(offset, bytes_out, length); },
    .sync = [](flash_part *part) { return mtd_of(part)->sync(); },
    .is_marked = [](const flash_part *part) { return mtd_of(part)->is_marked(); },
    .set_marker = [](flash_part *part) { return mtd_of(part)->set_marker(); },
    .clear_marker = [](flash_part *part) { return mtd_of(part)->clear_marker(); },
    .wear = [](const flash_part *part) -> const flash_wear & { return mtd_of(part)->wear(); },
};
