// Platform manager of the chassis: identity and module table out of the inventory, read at each call.
#include "pfm.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>

#include "chassis_dir.h"
#include "inventory_value.h"
#include "unique_fd.h"

namespace
{

// A test writes an errno number to this file of a slot to make its module information unreadable.
constexpr const char *MODULE_INFO_ERROR_FILE = "module_info_error";

int32_t failure(int error)
{
    errno = error;
    return -1;
}

struct close_directory {
    void operator()(DIR *directory) const { ::closedir(directory); }
};

// The inventory's folder, or null with errno.
std::unique_ptr<DIR, close_directory> open_inventory()
{
    unique_fd fd(::openat(chassis_dir_fd(), "inventory", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd)
        return nullptr;
    std::unique_ptr<DIR, close_directory> directory(::fdopendir(fd.get()));
    if (directory)
        (void)fd.release();
    return directory;
}

// 0 for a name that is no slot's.
unsigned slot_of(const char *name)
{
    char *end = nullptr;
    const unsigned long slot = std::strtoul(name, &end, 10);
    const bool is_slot = slot >= 1 && slot <= PFM_MODULE_COUNT && std::to_string(slot) == name;
    return is_slot ? static_cast<unsigned>(slot) : 0;
}

pfm_module_record_t module_record(unsigned slot)
{
    pfm_module_record_t record{};
    record.kind = static_cast<uint8_t>(inventory_value(slot, "kind", UINT8_MAX));
    record.card_id = static_cast<uint16_t>(inventory_value(slot, "card_id", UINT16_MAX));
    return record;
}

// The own card's id as it was read last, for when this process lacks what it takes to read it again.
struct known_card_id {
    unsigned slot = 0; // 0: it was not read yet
    uint16_t card_id = 0;
};

bool is_shortage(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

// 0, or the errno.
int read_card_id(unsigned slot, uint16_t &card_id)
try {
    if (const uint32_t error = inventory_value(slot, MODULE_INFO_ERROR_FILE, INT32_MAX); error != 0)
        return static_cast<int>(error);
    std::string text;
    if (!chassis_read_file(chassis_inventory_path(slot, "card_id"), text))
        return errno == ENOENT ? ENODEV : errno;
    const unsigned long number = std::strtoul(text.c_str(), nullptr, 0);
    card_id = number <= UINT16_MAX ? static_cast<uint16_t>(number) : 0;
    return 0;
} catch (const std::exception &) {
    return ENOMEM;
}

} // namespace

int32_t get_platform_info(platform_info_t *info)
{
    if (info == nullptr)
        return failure(EINVAL);
    const unsigned slot = chassis_own_slot();
    if (slot == 0)
        return failure(ENODEV);
    std::memset(info, 0, sizeof *info);
    info->module_num = static_cast<uint8_t>(slot);
    return 0;
}

int32_t pfm_get_all_modules_in_chassis(int32_t, pfm_module_record_t *records, uint32_t count)
try {
    if (records == nullptr || count > PFM_MODULE_COUNT)
        return failure(EINVAL);
    const auto inventory = open_inventory();
    if (!inventory)
        return -1;
    std::memset(records, 0, count * sizeof *records);
    while (const dirent *entry = ::readdir(inventory.get())) {
        if (const unsigned slot = slot_of(entry->d_name); slot != 0 && slot <= count)
            records[slot - 1] = module_record(slot);
    }
    return 0;
} catch (const std::exception &) {
    return failure(ENOMEM);
}

int32_t get_card_module_info(card_module_info_t *info)
{
    static known_card_id known;
    if (info == nullptr)
        return failure(EINVAL);
    const unsigned slot = chassis_own_slot();
    if (slot == 0)
        return failure(ENODEV);
    uint16_t card_id = 0;
    const int error = read_card_id(slot, card_id);
    if (error == 0)
        known = {slot, card_id};
    else if (!is_shortage(error) || known.slot != slot)
        return failure(error);
    info->card_id = known.card_id;
    return 0;
}
